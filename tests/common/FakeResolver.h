// A resolver for tests: answers from tables given by the test (entries,
// "no entry", error codes, slow answers) and counts the questions. Installed
// for a scope with zn::resolver::ScopedResolver. Thread-safe.
#pragma once

#include <arpa/inet.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/resolver/cu_resolver.h"

namespace testsupport {

class FakeResolver final : public zn::resolver::Resolver {
  public:
    struct Answer {
        int code = 0;
        bool found = false;
        std::string official;
        std::vector<std::string> addresses;  // dotted IPv4
        std::chrono::milliseconds delay{0};
    };

    void name(const std::string& n, const std::string& official, std::vector<std::string> addresses,
              std::chrono::milliseconds delay = {}) {
        std::lock_guard<std::mutex> g(mu_);
        byName_[n] = Answer{0, true, official, std::move(addresses), delay};
    }
    void nameFails(const std::string& n, int code) {
        std::lock_guard<std::mutex> g(mu_);
        byName_[n] = Answer{code, false, "", {}, {}};
    }
    void addr(const std::string& dotted, const std::string& official) {
        std::lock_guard<std::mutex> g(mu_);
        byAddr_[dotted] = Answer{0, true, official, {dotted}, {}};
    }
    void addrFails(const std::string& dotted, int code) {
        std::lock_guard<std::mutex> g(mu_);
        byAddr_[dotted] = Answer{code, false, "", {}, {}};
    }
    int nameCalls(const std::string& n) {
        std::lock_guard<std::mutex> g(mu_);
        return nameCalls_[n];
    }
    std::vector<std::string> addrQuestions() {
        std::lock_guard<std::mutex> g(mu_);
        return addrQuestions_;
    }

    // Unknown names and addresses have no entry (code 0, null).
    int byName(const std::string& n, std::unique_ptr<cu_hostent>& host) override {
        Answer a;
        {
            std::lock_guard<std::mutex> g(mu_);
            ++nameCalls_[n];
            auto it = byName_.find(n);
            if (it == byName_.end()) {
                return 0;
            }
            a = it->second;
        }
        std::this_thread::sleep_for(a.delay);
        return answer(a, host);
    }
    int byAddr(const in_addr& address, std::unique_ptr<cu_hostent>& host) override {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &address, text, sizeof text);
        Answer a;
        {
            std::lock_guard<std::mutex> g(mu_);
            addrQuestions_.push_back(text);
            auto it = byAddr_.find(text);
            if (it == byAddr_.end()) {
                return 0;
            }
            a = it->second;
        }
        return answer(a, host);
    }

  private:
    static int answer(const Answer& a, std::unique_ptr<cu_hostent>& host) {
        if (a.code != 0 || !a.found) {
            return a.code;
        }
        host = std::make_unique<cu_hostent>();
        host->h_name = a.official;
        for (const auto& d : a.addresses) {
            in_addr x{};
            inet_pton(AF_INET, d.c_str(), &x);
            host->h_addr_list.push_back(x);
        }
        return 0;
    }

    std::mutex mu_;
    std::map<std::string, Answer> byName_, byAddr_;
    std::map<std::string, int> nameCalls_;
    std::vector<std::string> addrQuestions_;
};

}  // namespace testsupport
