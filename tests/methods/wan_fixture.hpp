// Shared by the tests of the WAN methods: a clean message buffer, record
// chain and journal per case, WAN records built by hand, and the lines of
// the journal and of the technical log.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

class WanMethod : public ::testing::Test {
  protected:
    void SetUp() override {
        // The statistics, not the time they take, are under test here.
        zqlab::set("ping.interval", "0.2");
        // The command log's directory, as a diagnosis run makes it.
        zqlab::run("mkdir -p /tmp/diag_file");
        reset();
    }
    static void reset() {
        clear_diag_chain();
        zq_diag_msg_reset();
        zqlab::clear_journal();
    }
    static std::string findings() { return zq_diag_msg; }

    // The journal lines of one tool ("timeout" for the pings and lookups).
    static std::vector<std::string> journal_of(const std::string &tool) { return zqlab::journal(tool); }

    static std::vector<zqSD_wan_diag> wan_records() {
        std::vector<zqSD_wan_diag> out;
        list_diag_record<zqSD_wan_diag>("test", [&](const zqSD_wan_diag &w) {
            out.push_back(w);
            return false;
        });
        return out;
    }

    static zqSD_wan_diag wan(const char *name, const char *type, const char *protocol, const char *service,
                             const char *v4_ip, const char *v4_gateway, uint32_t v4_state = 0) {
        zqSD_wan_diag w{};
        strncpy(w.wan_name, name, sizeof(w.wan_name) - 1);
        strncpy(w.type, type, sizeof(w.type) - 1);
        strncpy(w.protocol, protocol, sizeof(w.protocol) - 1);
        strncpy(w.service_type, service, sizeof(w.service_type) - 1);
        strncpy(w.v4_ip, v4_ip, sizeof(w.v4_ip) - 1);
        strncpy(w.v4_gateway, v4_gateway, sizeof(w.v4_gateway) - 1);
        w.v4_conn_state = v4_state;
        w.v6_conn_state = WAN_GATEWAY_UNREACHABLE;
        return w;
    }
    static void store(const zqSD_wan_diag &w) { ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0); }

    // Runs `fn` and returns what it wrote to the technical log.
    template <class Fn> static std::string log_of(Fn &&fn) {
        testing::internal::CaptureStdout();
        fn();
        return testing::internal::GetCapturedStdout();
    }
};

inline bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}
