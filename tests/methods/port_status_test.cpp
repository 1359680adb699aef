#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "tests/methods/method_support.hpp"

using namespace zq;

namespace {

using method_test::records;
using method_test::run_step;

class PortStatus : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }
    static void set_status(int port, const char *status) {
        zqlab::set("port." + std::to_string(port) + ".status", status);
    }
};

TEST_F(PortStatus, StructGetterCutsEachTextAtItsField) {
    zqlab::set("port.2.status", "Up-and-running");
    zqlab::set("port.2.speed", "10000baseT-Full-duplex");
    zqlab::clear_journal();
    zqSD_port_diag block;
    memset(&block, 0x7e, sizeof(block));
    const uint32_t index = 2;
    ASSERT_EQ(zq_get_sys_diag("port_status", ACTION_STRUCT, zq_args(&index, 4, &block, 40)), 0);
    EXPECT_STREQ(block.status, "Up-and-");
    EXPECT_STREQ(block.speed, "10000baseT-Full");
    EXPECT_STREQ(block.duplex, "Half");
    EXPECT_EQ(zqlab::journal("diagM"),
              (std::vector<std::string>{"diagM get port_info status 2", "diagM get port_info speed 2",
                                        "diagM get port_info duplex 2"}));
}

TEST_F(PortStatus, OnlyTheThirdOfFourPortsUp) {
    set_status(0, "Down");
    set_status(2, "Up");
    const auto step = run_step("port_status", ACTION_DIAG);
    EXPECT_EQ(step.rc, 0);
    EXPECT_EQ(step.result, 1u);
    EXPECT_EQ(step.findings,
              "[warn   ]Port[1] down\n[warn   ]Port[2] down\n[normal ]Port[3] up\n[warn   ]Port[4] down\n");
    const auto ports = records<zqSD_port_diag>();
    ASSERT_EQ(ports.size(), 4u);
    EXPECT_STREQ(ports[2].status, "Up");
    EXPECT_STREQ(ports[3].speed, "0");
}

// The test for "Up" is case-sensitive.
TEST_F(PortStatus, CapitalUpIsDown) {
    set_status(0, "UP");
    const auto step = run_step("port_status", ACTION_DIAG);
    EXPECT_EQ(step.result, 2u);
    EXPECT_EQ(step.findings.rfind("[warn   ]Port[1] down\n", 0), 0u) << step.findings;
    EXPECT_NE(step.findings.find("[error  ]All ports down\n"), std::string::npos) << step.findings;
}

TEST_F(PortStatus, MissingOrSenselessCountStillChecksTheFirstPort) {
    for (const char *count : {"", "0", "-3", "four"}) {
        clear_diag_chain();
        zqlab::set("port.num", count);
        zqlab::clear_journal();
        const auto step = run_step("port_status", ACTION_DIAG);
        EXPECT_EQ(step.findings, "[normal ]Port[1] up\n") << "'" << count << "'";
        EXPECT_EQ(records<zqSD_port_diag>().size(), 1u);
        EXPECT_EQ(zqlab::journal("diagM").at(1), "diagM get port_info status 0");
    }
}

TEST_F(PortStatus, AbsurdCountIsCapped) {
    zqlab::set("port.num", "2147483647");
    testing::internal::CaptureStdout();
    const auto step = run_step("port_status", ACTION_DIAG);
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("port count 2147483647 out of range, the first 64 ports are checked"),
              std::string::npos)
        << log;
    EXPECT_NE(step.findings.find("Port[64] down\n"), std::string::npos);
    EXPECT_EQ(step.findings.find("Port[65]"), std::string::npos);
}

} // namespace
