#include "tarn_rmf2v/link/RMDiLink.h"

#include "platform/paths.h"
#include "tarn_base/CTraceManager.h"
#include "tarn_rmf2v/link/RMServiceCall.h"
#include "znpex/di/DiCodec.h"
#include "znpex/di/di_table.h"

namespace tarn_rmf2v {
namespace {

namespace di = znpex::di;
using znpex::proto::Json;

tarn_base::CTraceComponent* trace() {
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    static tarn_base::CTraceComponent* c = tarn_base::CTraceManager::newComponent("_RMF", cats, 2);
    return c;
}

// One request; the service's {"code": n} answer, or DI_ENOSERVICE.
int ask(const std::string& socket, const char* method, const Json& params,
        std::chrono::milliseconds timeout) {
    Json result;
    std::string why;
    if (serviceCall(socket, method, params, &result, &why, timeout) != 0) {
        trace()->writef(0, "%s not done: %s", method, why.c_str());
        return DI_ENOSERVICE;
    }
    if (!result.is_object() || !result.contains("code") || !result["code"].is_number_integer()) {
        trace()->writef(0, "%s: the service's answer has no result code", method);
        return DI_ENOSERVICE;
    }
    int code = result["code"].get<int>();
    if (code != DI_OK && result.contains("reason") && result["reason"].is_string()) {
        trace()->writef(0, "%s refused (%d): %s", method, code,
                        result["reason"].get<std::string>().c_str());
    }
    return code;
}

}  // namespace

void installDiLink(const std::string& socketPath, const std::string& rmName,
                   std::chrono::milliseconds timeout) {
    std::string socket =
        socketPath.empty() ? zn::paths::resolve(zn::paths::kPexSocket) : socketPath;
    di::setRefresher([socket, timeout](const di::Transaction& t) {
        return ask(socket, di::kDiRefresh, di::encodeTransaction(t), timeout);
    });
    di::setHeartbeatTuner(
        [socket, rmName, timeout](unsigned int frequency, unsigned int sensitivity) {
            di::Heartbeat h;
            h.frequency = frequency;
            h.sensitivity = sensitivity;
            h.rm = rmName;
            return ask(socket, di::kDiTuneHeartbeat, di::encodeHeartbeat(h), timeout);
        });
}

void removeDiLink() {
    di::setRefresher(nullptr);
    di::setHeartbeatTuner(nullptr);
}

}  // namespace tarn_rmf2v
