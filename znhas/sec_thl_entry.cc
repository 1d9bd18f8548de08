// Trusted host list records: reading them from the file (bounded, checked)
// and converting between records and tokens.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "znhas/sec_messages.h"
#include "znhas/sec_thl.h"
#include "znhas/sec_token.h"
#include "znhas/znhas.h"

namespace znhas {

namespace {

// Read-ahead size: a list of a few thousand records is read in a handful of
// system calls instead of two per record.
constexpr size_t kChunk = 64 * 1024;

void decodeHead(ThlEntry* e) {
    const uint8_t* p = e->raw.data();
    e->recsize = getBe32(p);
    e->length = getBe32(p + 4);
    e->magic = getBe32(p + 8);
    e->active = getBe32(p + 12);
    e->idtype = getBe32(p + 16);
    e->idlen = getBe32(p + 20);
    e->namelen = getBe32(p + 24);
}

// A live record must describe itself exactly and fit its slot.
bool wellFormed(const ThlEntry& e) {
    const uint64_t need = uint64_t(kThlHead) + e.namelen + 1 + e.idlen;
    return e.magic == SEC_TOKEN_MAGIC && e.idlen > 0 && need == e.length && need <= e.recsize &&
           e.raw[kThlHead + e.namelen] == 0;
}

}  // namespace

ssize_t ThlReader::take(uint8_t* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        const off_t bufEnd = bufStart_ + static_cast<off_t>(buf_.size());
        if (pos_ >= bufStart_ && pos_ < bufEnd) {
            size_t c = std::min(static_cast<size_t>(bufEnd - pos_), n - got);
            std::memcpy(out + got, buf_.data() + (pos_ - bufStart_), c);
            got += c;
            pos_ += static_cast<off_t>(c);
            continue;
        }
        buf_.resize(kChunk);
        ssize_t r;
        do {
            r = pread(fd_, buf_.data(), kChunk, pos_);
        } while (r < 0 && (errno == EINTR || errno == EAGAIN));
        if (r < 0) {
            buf_.clear();
            return -1;
        }
        buf_.resize(static_cast<size_t>(r));
        bufStart_ = pos_;
        if (r == 0) {
            break;
        }
    }
    return static_cast<ssize_t>(got);
}

int ThlReader::next(ThlEntry* e) {
    const off_t start = pos_;
    uint8_t head[4];
    ssize_t r = take(head, sizeof head);
    if (r < 0) {
        return secInternal(fn_, "read", errno);
    }
    if (r == 0) {
        return 0;
    }
    if (r < 4) {
        return secCorrupted(fn_, file_);
    }
    const uint32_t recsize = getBe32(head);
    if (recsize > kThlMaxSlot) {
        return secOversized(fn_, file_, recsize);
    }
    if (recsize < kThlHead + 1) {
        return secCorrupted(fn_, file_);
    }
    // The slot plus four zero bytes, so a name always finds a terminator.
    e->raw.assign(recsize + 4, 0);
    std::memcpy(e->raw.data(), head, sizeof head);
    r = take(e->raw.data() + 4, recsize - 4);
    if (r < 0) {
        return secInternal(fn_, "read", errno);
    }
    if (static_cast<size_t>(r) != recsize - 4) {
        return secCorrupted(fn_, file_);
    }
    e->offset = start;
    decodeHead(e);
    if (e->candidate() && !wellFormed(*e)) {
        return secCorrupted(fn_, file_);
    }
    return 1;
}

}  // namespace znhas

using znhas::SecureBytes;
using znhas::ThlEntry;

int sec__create_thl_entry(const char* fn, const std::string& utf8name, sec_buffer_t token,
                          SecureBytes* rec) {
    uint32_t type = 0;
    const uint8_t* key = nullptr;
    size_t keylen = 0;
    if (!znhas::checkToken(token, &type, &key, &keylen) || utf8name.empty()) {
        return znhas::secBadParam(fn, 2, ZNHAS_E_INTERNAL);
    }
    const uint64_t size = uint64_t(znhas::kThlHead) + utf8name.size() + 1 + keylen;
    if (size > znhas::kThlMaxSlot) {
        std::string file;
        sec__get_thl_filename(&file);
        return znhas::secOversized(fn, file.c_str(), static_cast<long long>(size));
    }
    rec->assign(size, 0);
    uint8_t* p = rec->data();
    znhas::putBe32(p, static_cast<uint32_t>(size));
    znhas::putBe32(p + 4, static_cast<uint32_t>(size));
    znhas::putBe32(p + 8, SEC_TOKEN_MAGIC);
    znhas::putBe32(p + 12, znhas::kThlLive);
    // The type as it stands in the token, already big-endian.
    std::memcpy(p + 16, static_cast<const uint8_t*>(token->value) + 4, 4);
    znhas::putBe32(p + 20, static_cast<uint32_t>(keylen));
    znhas::putBe32(p + 24, static_cast<uint32_t>(utf8name.size()));
    std::memcpy(p + znhas::kThlHead, utf8name.data(), utf8name.size());
    std::memcpy(p + znhas::kThlHead + utf8name.size() + 1, key, keylen);
    return 0;
}

int sec__create_token_from_entry(const char* fn, const ThlEntry& e, sec_buffer_t* token) {
    return znhas::makeToken(fn, e.idtype, e.key(), e.idlen, token);
}
