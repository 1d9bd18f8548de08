// The command line run in-process against the fake service: a run's exit
// status and output, and a scripted resource manager behind the service.
#pragma once

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/znpex_client/ClientFixture.h"
#include "znpex/cli/Commands.h"
#include "znpex/proto/RequestCodec.h"
#include "znpex/proto/ValueCodec.h"

namespace testsupport {

struct CliRun {
    int status;
    std::string out;
    std::string err;
};

class CliTest : public ClientTest {
protected:
    using RMReply = tarn_rmf2v::RMReply;
    using RMRequest = tarn_rmf2v::RMRequest;
    using RMRequestOp = tarn_rmf2v::RMRequestOp;

    CliRun run(std::vector<std::string> args) {
        args.insert(args.begin(), "znpex");
        std::vector<const char*> argv;
        for (auto& a : args) {
            argv.push_back(a.c_str());
        }
        std::ostringstream out, err;
        int status = znpex::cli::runCli(static_cast<int>(argv.size()), argv.data(), out, err);
        return {status, out.str(), err.str()};
    }
    using Build = std::function<RMReply(const RMRequest&)>;
    void manager(Build build) {
        service->onRm([build](const znpex::proto::RpcMessage& m) {
            auto op = znpex::proto::opFromRmMethod(m.method);
            RMRequest r = znpex::proto::decodeRequestParams(*op, m.params);
            FakeService::Answer a;
            a.reply = FakeService::result(m, znpex::proto::encodeReply(build(r)));
            return a;
        });
    }
    std::vector<RMRequest> rmRequests(RMRequestOp op) {
        std::vector<RMRequest> out;
        for (auto& m : requestsOf(znpex::proto::rmMethod(op))) {
            out.push_back(znpex::proto::decodeRequestParams(op, m.params));
        }
        return out;
    }
    // Two nodes with a host name, a node id and a status each.
    void twoNodes() {
        manager([this](const RMRequest& r) {
            RMReply reply;
            switch (r.op) {
                case RMRequestOp::EnumerateResources:
                case RMRequestOp::EnumerateSelectResources:
                    reply.handles = {h1, h2};
                    break;
                case RMRequestOp::GetAttributeValues:
                    for (int id : r.ids) {
                        if (id == 0) {
                            reply.values.push_back({0, zv::str(r.handle == h1 ? "n1" : "n2")});
                        } else if (id == 1) {
                            reply.values.push_back({1, zv::u64(18446744073709551615ull)});
                        }
                    }
                    break;
                case RMRequestOp::ReportDynAttributeValues:
                    reply.values.push_back({1, zv::u32(r.handle == h1 ? 1 : 127)});
                    break;
                default:
                    break;
            }
            return reply;
        });
    }
    const zn_resource_handle h1 = zv::handleOf(1);
    const zn_resource_handle h2 = zv::handleOf(2);
    const std::string hex1 = znpex::proto::handleToHex(h1);
    const std::string hex2 = znpex::proto::handleToHex(h2);
};

}  // namespace testsupport
