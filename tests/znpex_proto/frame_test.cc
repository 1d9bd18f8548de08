// Framing: payloads survive any split of the byte stream, the size cap is
// enforced from the header before anything is stored, and the blocking reader
// tells a clean close, a truncated frame, a timeout and an oversize frame
// apart.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "znpex/proto/Frame.h"
#include "znpex/proto/FrameIo.h"
#include "znpex/proto/ProtocolError.h"

using namespace znpex::proto;

namespace {

TEST(Frame, HeaderIsBigEndianLength) {
    std::string f = encodeFrame("abc");
    ASSERT_EQ(f.size(), 7u);
    EXPECT_EQ(f.substr(0, 4), std::string("\0\0\0\3", 4));
    EXPECT_EQ(f.substr(4), "abc");
    std::string big = encodeFrame(std::string(0x010203, 'x'));
    EXPECT_EQ(big.substr(0, 4), std::string("\0\x01\x02\x03", 4));
    EXPECT_THROW(encodeFrame("12345", 4), ProtocolError);
}

TEST(Frame, DecoderReassemblesAnySplit) {
    std::string stream = encodeFrame("first") + encodeFrame("") + encodeFrame("{\"x\":1}");
    for (size_t chunk : {size_t{1}, size_t{2}, size_t{3}, size_t{5}, stream.size()}) {
        SCOPED_TRACE(chunk);
        FrameDecoder d;
        std::vector<std::string> got;
        for (size_t i = 0; i < stream.size(); i += chunk) {
            for (auto& f : d.feed(stream.data() + i, std::min(chunk, stream.size() - i))) {
                got.push_back(f);
            }
        }
        EXPECT_EQ(got, (std::vector<std::string>{"first", "", "{\"x\":1}"}));
        EXPECT_FALSE(d.midFrame());
    }
}

TEST(Frame, DecoderTracksPartialFrames) {
    FrameDecoder d;
    std::string f = encodeFrame("hello");
    EXPECT_TRUE(d.feed(f.data(), 2).empty());
    EXPECT_TRUE(d.midFrame());
    EXPECT_TRUE(d.feed(f.data() + 2, 4).empty());
    EXPECT_TRUE(d.midFrame());
    auto out = d.feed(f.data() + 6, f.size() - 6);
    EXPECT_EQ(out, std::vector<std::string>{"hello"});
    EXPECT_FALSE(d.midFrame());
}

TEST(Frame, OversizeHeaderFailsBeforeThePayload) {
    FrameDecoder d(100);
    const unsigned char huge[] = {0xff, 0xff, 0xff, 0xff};
    EXPECT_THROW(d.feed(huge, sizeof huge), ProtocolError);
    EXPECT_TRUE(d.failed());
    // A failed stream stays failed.
    std::string ok = encodeFrame("x");
    EXPECT_THROW(d.feed(ok.data(), ok.size()), ProtocolError);

    // Exactly at the cap is fine, one more is not.
    FrameDecoder atCap(8);
    std::string eight = encodeFrame("12345678");
    EXPECT_EQ(atCap.feed(eight.data(), eight.size()).size(), 1u);
    std::string header;
    appendFrameHeader(header, 9);
    EXPECT_THROW(atCap.feed(header.data(), header.size()), ProtocolError);
}

TEST(Frame, FramesBeforeAnOversizeHeaderAreDelivered) {
    FrameDecoder d(16);
    std::string stream = encodeFrame("good");
    appendFrameHeader(stream, 17);
    auto out = d.feed(stream.data(), stream.size());
    EXPECT_EQ(out, std::vector<std::string>{"good"});
    EXPECT_TRUE(d.failed());
    EXPECT_THROW(d.feed("x", 1), ProtocolError);
}

TEST(Frame, DefaultCapIsSixteenMebibytes) {
    FrameDecoder d;
    std::string header;
    appendFrameHeader(header, kMaxFrame);
    EXPECT_TRUE(d.feed(header.data(), header.size()).empty());
    FrameDecoder e;
    std::string over;
    appendFrameHeader(over, kMaxFrame + 1);
    EXPECT_THROW(e.feed(over.data(), over.size()), ProtocolError);
}

struct SocketPair {
    SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0); }
    ~SocketPair() {
        closeEnd(0);
        closeEnd(1);
    }
    void closeEnd(int i) {
        if (fd[i] >= 0) {
            ::close(fd[i]);
            fd[i] = -1;
        }
    }
    int fd[2] = {-1, -1};
};

TEST(FrameIo, ReaderDeliversFramesInOrderAndThenClosed) {
    SocketPair s;
    ASSERT_EQ(writeFrame(s.fd[0], "one"), IoStatus::Ok);
    ASSERT_EQ(writeFrame(s.fd[0], "two"), IoStatus::Ok);
    s.closeEnd(0);
    FdFrameReader r(s.fd[1]);
    std::string p;
    ASSERT_EQ(r.next(p, 1000), IoStatus::Ok);
    EXPECT_EQ(p, "one");
    ASSERT_EQ(r.next(p, 1000), IoStatus::Ok);
    EXPECT_EQ(p, "two");
    EXPECT_EQ(r.next(p, 1000), IoStatus::Closed);
}

TEST(FrameIo, ReaderReportsTruncationTimeoutAndOversize) {
    {
        SocketPair s;
        std::string f = encodeFrame("truncated");
        ASSERT_EQ(writeAll(s.fd[0], f.data(), f.size() - 3), IoStatus::Ok);
        s.closeEnd(0);
        FdFrameReader r(s.fd[1]);
        std::string p;
        EXPECT_EQ(r.next(p, 1000), IoStatus::Truncated);
    }
    {
        SocketPair s;
        FdFrameReader r(s.fd[1]);
        std::string p;
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(r.next(p, 50), IoStatus::Timeout);
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(45));
    }
    {
        SocketPair s;
        std::string header;
        appendFrameHeader(header, 1000);
        ASSERT_EQ(writeAll(s.fd[0], header.data(), header.size()), IoStatus::Ok);
        FdFrameReader r(s.fd[1], 999);
        std::string p;
        EXPECT_EQ(r.next(p, 1000), IoStatus::TooLarge);
    }
}

TEST(FrameIo, WriterRefusesOversizeAndNeverRaisesSigpipe) {
    SocketPair s;
    EXPECT_EQ(writeFrame(s.fd[0], "12345", 100, 4), IoStatus::TooLarge);
    s.closeEnd(1);
    // Writing to a closed peer fails with EPIPE instead of killing the test.
    EXPECT_EQ(writeFrame(s.fd[0], "x", 100), IoStatus::Failed);
}

TEST(FrameIo, WriterTimesOutWhenThePeerStopsReading) {
    SocketPair s;
    int small = 4096;
    ::setsockopt(s.fd[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string payload(4 * 1024 * 1024, 'z');
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(writeFrame(s.fd[0], payload, 100), IoStatus::Timeout);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
}

TEST(FrameIo, LargeFrameCrossesInPieces) {
    SocketPair s;
    std::string payload(3 * 1024 * 1024 + 7, 'q');
    std::thread writer([&] { EXPECT_EQ(writeFrame(s.fd[0], payload, 5000), IoStatus::Ok); });
    FdFrameReader r(s.fd[1]);
    std::string p;
    EXPECT_EQ(r.next(p, 5000), IoStatus::Ok);
    writer.join();
    EXPECT_EQ(p, payload);
}

}  // namespace
