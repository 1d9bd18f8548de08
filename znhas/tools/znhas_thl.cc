// znhas-thl: administers the trusted host list.
//   znhas-thl init
//   znhas-thl list [-o json] [--all]
//   znhas-thl show --host NAME [-o json]
//   znhas-thl add --host NAME --key HEX --type rsa1024
//   znhas-thl delete --host NAME
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "znhas/sec_thl.h"
#include "znhas/sec_utf8.h"
#include "znhas/tools/tool_common.h"
#include "znhas/znhas.h"

namespace {

struct Row {
    std::string host;
    std::string type;
    uint32_t typeCode = 0;
    std::string key;
    bool active = false;
};

// Key text and type name of a token; empty strings if it does not print.
void printToken(sec_buffer_t tok, Row* row) {
    char* key = nullptr;
    char* type = nullptr;
    if (sec_print_host_token(tok, &key, &type) == 0) {
        row->key = key;
        row->type = type;
    } else {
        row->type = "?";
    }
    std::free(key);
    std::free(type);
}

void emit(const std::vector<Row>& rows, const std::string& format) {
    if (format == "json") {
        nlohmann::json out = nlohmann::json::array();
        for (const auto& r : rows) {
            out.push_back({{"host", r.host},
                           {"type", r.type},
                           {"type_code", r.typeCode},
                           {"key", r.key},
                           {"active", r.active}});
        }
        std::cout << out.dump(2) << "\n";
        return;
    }
    for (const auto& r : rows) {
        std::cout << r.host << "\t" << r.type << "\t" << (r.active ? "active" : "inactive") << "\t"
                  << r.key << "\n";
    }
}

int list(const std::string& format, bool all) {
    std::vector<Row> rows;
    int rc = sec__walk_thl([&](const znhas::ThlEntry& e) {
        if (e.length == 0 || (!all && !e.candidate())) {
            return 0;  // struck-out slots hold no host
        }
        // Deactivated records are not checked when read; show only sound ones.
        if (e.magic != SEC_TOKEN_MAGIC || e.idlen == 0 ||
            uint64_t(znhas::kThlHead) + e.namelen + 1 + e.idlen > e.recsize) {
            return 0;
        }
        Row row;
        std::string local;
        row.host = sec__conv_utf8_to_str("znhas-thl", e.name(), &local) == 0 ? local : e.name();
        row.typeCode = e.idtype;
        row.active = e.candidate();
        sec_buffer_t tok = nullptr;
        if (sec__create_token_from_entry("znhas-thl", e, &tok) == 0) {
            printToken(tok, &row);
        }
        sec_release_host_token(&tok);
        rows.push_back(std::move(row));
        return 0;
    });
    if (rc != 0) {
        return znhas_tools::reportError(rc);
    }
    emit(rows, format);
    return 0;
}

int show(const std::string& host, const std::string& format) {
    sec_buffer_t tok = nullptr;
    int rc = sec_get_host_token(host.c_str(), &tok);
    if (rc != 0) {
        return znhas_tools::reportError(rc);
    }
    Row row;
    row.host = host;
    row.active = true;
    int keylen = 0;
    sec_host_token_t parsed = nullptr;
    if (sec_parse_host_token(tok, &keylen, &parsed) == 0) {
        row.typeCode = parsed->sht_type;
        sec_release_parsed_token(&parsed);
    }
    printToken(tok, &row);
    sec_release_host_token(&tok);
    emit({row}, format);
    return 0;
}

int add(const std::string& host, const std::string& key, const std::string& type) {
    const int keytype = znhas_tools::keyTypeFromText(type);
    sec_buffer_t tok = nullptr;
    int rc = sec_set_host_token(key.c_str(), keytype, &tok);
    if (rc == 0) {
        rc = sec_store_host_token(host.c_str(), tok);
    }
    sec_release_host_token(&tok);
    return rc != 0 ? znhas_tools::reportError(rc) : 0;
}

int remove(const std::string& host) {
    int rc = sec_delete_host_token(host.c_str());
    return rc != 0 ? znhas_tools::reportError(rc) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_ALL, "");
    CLI::App app{"Administer the trusted host list: the public keys of trusted hosts."};
    app.require_subcommand(1);

    auto* init = app.add_subcommand("init", "Create an empty trusted host list if there is none");

    std::string format = "text";
    bool all = false;
    auto* ls = app.add_subcommand("list", "List hosts with key type, key and state");
    ls->add_option("-o,--output", format, "Output format")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
    ls->add_flag("-a,--all", all, "Include deactivated records");

    std::string host;
    auto* sh = app.add_subcommand("show", "Print the key stored for one host");
    sh->add_option("-n,--host", host, "Host name")->required();
    sh->add_option("-o,--output", format, "Output format")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();

    std::string key;
    std::string type;
    auto* ad = app.add_subcommand("add", "Add a host's key, or replace the one stored");
    ad->add_option("-n,--host", host, "Host name")->required();
    ad->add_option("-k,--key", key, "Key as hexadecimal text")->required();
    ad->add_option("-t,--type", type, "Key type: rsa512, rsa1024 or a number 256..8194")
        ->required();

    auto* del = app.add_subcommand("delete", "Stop trusting a host");
    del->add_option("-n,--host", host, "Host name")->required();

    CLI11_PARSE(app, argc, argv);
    if (init->parsed()) {
        int rc = sec__init_thl();
        return rc != 0 ? znhas_tools::reportError(rc) : 0;
    }
    if (ls->parsed()) {
        return list(format, all);
    }
    if (sh->parsed()) {
        return show(host, format);
    }
    if (ad->parsed()) {
        return add(host, key, type);
    }
    return remove(host);
}
