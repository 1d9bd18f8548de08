// znhas-keygen: makes the local host's RSA key pair and shows its public key.
//   znhas-keygen generate --type rsa1024
//   znhas-keygen show [-o json]
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "znhas/sec_keyfile.h"
#include "znhas/tools/tool_common.h"
#include "znhas/znhas.h"

namespace {

int generate(const std::string& type) {
    const int keytype = type == "rsa512" ? SEC_KEYTYPE_RSA512 : SEC_KEYTYPE_RSA1024;
    int rc = sec__create_localhost_hostids(keytype);
    if (rc != 0) {
        return znhas_tools::reportError(rc);
    }
    std::string pvt;
    std::string pub;
    sec__get_keyfile_name(SEC_PRIVATE_KEYFILE, &pvt);
    sec__get_keyfile_name(SEC_PUBLIC_KEYFILE, &pub);
    std::cout << "Generated an " << type << " key pair: private key in " << pvt
              << ", public key in " << pub << "\n";
    return 0;
}

int show(const std::string& format) {
    char* key = nullptr;
    char* type = nullptr;
    int rc = sec_print_localhost_token(&key, &type);
    if (rc != 0) {
        return znhas_tools::reportError(rc);
    }
    if (format == "json") {
        std::cout << nlohmann::json{{"type", type}, {"key", key}}.dump(2) << "\n";
    } else {
        std::cout << type << " " << key << "\n";
    }
    std::free(key);
    std::free(type);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    CLI::App app{"Generate the local host's key pair and show its public key."};
    app.require_subcommand(1);

    std::string type = "rsa1024";
    auto* gen = app.add_subcommand("generate", "Generate a new key pair into the key files");
    gen->add_option("-t,--type", type, "Key type")
        ->check(CLI::IsMember({"rsa512", "rsa1024"}))
        ->capture_default_str();

    std::string format = "text";
    auto* sh = app.add_subcommand("show", "Print the local public key");
    sh->add_option("-o,--output", format, "Output format")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();

    CLI11_PARSE(app, argc, argv);
    if (gen->parsed()) {
        return generate(type);
    }
    return show(format);
}
