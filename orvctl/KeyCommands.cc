#include "orvctl/KeyCommands.h"

#include <unistd.h>

#include "common/FrameKeyStore.h"

namespace orvctl {
namespace {

using znpex::cli::kExitFailed;
using znpex::cli::kExitOk;

// The key store is root's; anyone else is told so before anything is read.
bool asRoot(znpex::cli::CliSession& cli) {
    if (::geteuid() == 0) {
        return true;
    }
    cli.failMessage("the frame key store can be read and changed by root only; run as root");
    return false;
}

}  // namespace

int keyAdd(znpex::cli::CliSession& cli, const std::string& mtms) {
    if (!asRoot(cli)) {
        return kExitFailed;
    }
    WEX_COMMON::FrameKeyStore store;
    std::string secret;
    std::string why;
    if (store.add(mtms, &secret, &why) != 0) {
        return cli.failMessage(why);
    }
    if (cli.opts().json()) {
        znpex::proto::Json out = {{"mtms", mtms}, {"secret", secret}};
        cli.out() << out.dump(2) << '\n';
    } else {
        cli.out() << secret << '\n';
    }
    // Shown once: not kept anywhere but the store.
    volatile char* p = secret.data();
    for (size_t i = 0; i < secret.size(); ++i) {
        p[i] = 0;
    }
    return kExitOk;
}

int keyList(znpex::cli::CliSession& cli) {
    if (!asRoot(cli)) {
        return kExitFailed;
    }
    WEX_COMMON::FrameKeyStore store;
    std::vector<std::string> names;
    std::string why;
    if (store.names(&names, &why) != 0) {
        return cli.failMessage(why);
    }
    if (cli.opts().json()) {
        cli.out() << znpex::proto::Json(names).dump(2) << '\n';
        return kExitOk;
    }
    for (const std::string& n : names) {
        cli.out() << n << '\n';
    }
    return kExitOk;
}

int keyRemove(znpex::cli::CliSession& cli, const std::string& mtms) {
    if (!asRoot(cli)) {
        return kExitFailed;
    }
    WEX_COMMON::FrameKeyStore store;
    std::string why;
    if (store.remove(mtms, &why) != 0) {
        return cli.failMessage(why);
    }
    return kExitOk;
}

}  // namespace orvctl
