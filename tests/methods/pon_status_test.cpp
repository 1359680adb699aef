#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

#include "engine/engine.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

struct Outcome {
    int rc;
    uint32_t result;
    std::string findings;
    const zqSD_pon_diag *record;
};

class PonStatus : public ::testing::Test {
  protected:
    void SetUp() override {
        clear_diag_chain();
        zq_diag_msg_reset();
    }
    static Outcome diagnose(uint32_t preset = 77) {
        uint32_t result = preset;
        int rc = zq_get_sys_diag("pon_status", ACTION_DIAG, zq_args(nullptr, 0, &result, sizeof(result)));
        diag_data_node *node = zq_search_diag_record(PON_DIAG_DATA);
        return {rc, result, zq_diag_msg, node ? static_cast<const zqSD_pon_diag *>(node->data) : nullptr};
    }
    static std::vector<std::string> journal_of(const std::string &tool) {
        std::vector<std::string> hits;
        for (const auto &line : zqlab::journal())
            if (line.find(tool) != std::string::npos) hits.push_back(line);
        return hits;
    }
};

TEST_F(PonStatus, NotRegisteredWithDetectionOff) {
    zqlab::scenario("pon-unregistered");
    Outcome o = diagnose();
    EXPECT_EQ(o.result, 2u);
    ASSERT_NE(o.record, nullptr);
    EXPECT_EQ(o.record->reg_state, 2u);
    std::string state = zqlab::run("diagM get pon_info pon_state");
    EXPECT_NE(o.findings.find("[error  ]Pon is " + state.substr(0, 31) + "\n"), std::string::npos)
        << o.findings;
    EXPECT_NE(o.findings.find("[warn   ]Pon auto detect did not open! --Repairable\n"), std::string::npos);
    zqlab::set("pon.detect", "1");
    zq_diag_msg_reset();
    o = diagnose();
    EXPECT_NE(o.findings.find("[normal ]Pon auto detect has opened\n"), std::string::npos) << o.findings;
    zqlab::set("pondetect", "no");
    zq_diag_msg_reset();
    o = diagnose();
    EXPECT_EQ(o.findings.find("auto detect"), std::string::npos) << o.findings;
}

TEST_F(PonStatus, LockedSoftwareVersionIsReported) {
    zqlab::scenario("pon-unregistered");
    zqlab::set("custname", "CMCC_lockver\n");
    EXPECT_NE(diagnose().findings.find("[warn   ]Software version is lockver!\n"), std::string::npos);
    zqlab::set("custname", "CMCC_unlock\n");
    zq_diag_msg_reset();
    EXPECT_EQ(diagnose().findings.find("lockver"), std::string::npos);
}

TEST_F(PonStatus, NoLinkSaysOnlyThat) {
    zqlab::scenario("pon-no-link");
    Outcome o = diagnose();
    EXPECT_EQ(o.result, 1u);
    EXPECT_NE(o.findings.find("[error  ]Pon not linked\n"), std::string::npos) << o.findings;
    EXPECT_EQ(o.findings.find("auto detect"), std::string::npos);
}

TEST_F(PonStatus, DebugSwitchesFollowThePonMode) {
    zqlab::write_file("/tmp/omcilog.par", "log");
    zqlab::clear_journal();
    set_pon_debug_flag(1);
    EXPECT_EQ(journal_of("omcicli set").size(), 2u);
    const int flag = get_pon_debug_flag(); // asks omcicli, which refreshes the state file
    EXPECT_EQ(flag, std::stoi(zqlab::read_file("/tmp/pon_debug_status")));
    EXPECT_NE(flag, 0);
    set_pon_debug_flag(0);
    struct stat st;
    EXPECT_NE(stat("/tmp/omcilog.par", &st), 0) << "switching GPON debugging off removes the OMCI log";
    zqlab::scenario("epon-oam-down");
    zqlab::clear_journal();
    set_pon_debug_flag(1);
    auto oam = journal_of("oamcli");
    ASSERT_EQ(oam.size(), 1u);
    EXPECT_NE(oam[0].find("set dbgflag 0xffffffff"), std::string::npos) << oam[0];
}

TEST_F(PonStatus, AuthenticationNormalOnlyWhenRegistered) {
    EXPECT_EQ(is_pon_auth_normal(), 1);
    zqlab::scenario("pon-unregistered");
    EXPECT_EQ(is_pon_auth_normal(), 0);
}

} // namespace
