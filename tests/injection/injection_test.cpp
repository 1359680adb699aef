// Every payload of the injection table through every field of outside text
// that the library uses: the control blocks, the exported requests, the
// diagnosis manager's answers, the gateway's files and the decoded
// captures. One test per field; each puts the payloads into the field one
// after the other, in one lab, and uses the field the way the library does
// (the method or entry point that reads it, not a whole diagnosis).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "capture/capture.h"
#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/util.h"
#include "injection.hpp"
#include "injection_fixture.hpp"
#include "lab/zqlab.hpp"
#include "methods/methods.h"
#include "methods/network/pppoe_analysis.h"
#include "records/records.h"
#include "tests/methods/method_support.hpp"
#include "upload/upload.h"

using namespace zq;

namespace {

using namespace injection_test;

// The table itself: at least 40 payloads, every family with several.
TEST(Payloads, EveryFamilyIsThere) {
    std::vector<std::string> families;
    for (const payload &p : injection::payloads())
        if (families.empty() || families.back() != p.family) families.push_back(p.family);
    const std::vector<std::string> expected = {"backtick",     "semicolon", "pipe",     "and",
                                               "dollar-paren", "ifs",       "quote",    "newline",
                                               "option",       "path",      "oversize", "nul"};
    EXPECT_EQ(families, expected);
    EXPECT_GE(injection::payloads().size(), 40u);
    std::string list;
    for (const std::string &f : families) list += (list.empty() ? "" : ", ") + f;
    printf("injection-table: %zu payloads in %zu families: %s\n", injection::payloads().size(),
           families.size(), list.c_str());
}

// ---- Control blocks and exported requests --------------------------------------

TEST_F(Injection, CaptureBlockUrl) {
    run_field({"g_cap_exec.url", {URL_REFUSALS}, true, false}, [](const payload &p) {
        zqlab::write_file(ZQ_CAPTURE_TAR, "the capture\n");
        memset(&g_cap_exec, 0, sizeof(g_cap_exec));
        fill(g_cap_exec.url, p.text);
        g_cap_exec.action = 2;
        observation seen;
        seen.log = log_of([] {
            EXPECT_EQ(capture_set(), 0);
            wait_for_worker(g_cap_exec);
        });
        EXPECT_EQ(zq::get_state(g_cap_exec), EXEC_UPLOAD_FAIL);
        // Nothing is lost: the archive stays on the gateway, stamped.
        EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/11161621cap.tar"));
        return seen;
    });
}

TEST_F(Injection, CaptureBlockUrlInRotateMode) {
    run_field({"g_cap_exec.url (rotate mode)", {URL_REFUSALS}, true, false}, [](const payload &p) {
        memset(&g_cap_exec, 0, sizeof(g_cap_exec));
        fill(g_cap_exec.url, p.text);
        g_cap_exec.mode = 1;
        g_cap_exec.action = 1;
        observation seen;
        seen.log = log_of([] { EXPECT_EQ(capture_set(), -1); });
        EXPECT_TRUE(zqlab::pids("tcpdump").empty());
        EXPECT_EQ(is_diag_permit_holding(), 0);
        return seen;
    });
}

TEST_F(Injection, DiagnosisBlockFileName) {
    run_field({"g_diag_exec.file_name", {NAME_REFUSALS}, true, true}, [](const payload &p) {
        std::remove("/tmp/diag_file/diag_log.tar");
        fill(g_diag_exec.file_name, p.text);
        observation seen;
        seen.log = log_of([] {
            upload_params params{};
            diagnose_upload_setting(&params);
        });
        return seen;
    });
}

TEST_F(Injection, CaptureBlockFileName) {
    run_field({"g_cap_exec.file_name", {NAME_REFUSALS}, true, true}, [](const payload &p) {
        zqlab::write_file(ZQ_CAPTURE_TAR, "the capture\n");
        fill(g_cap_exec.file_name, p.text);
        observation seen;
        upload_params params{};
        seen.log = log_of([&] { capture_upload_setting(&params); });
        // The new archive is what goes out, whatever the old name held.
        EXPECT_STREQ(params.local_file, "/tmp/capture_file/11161621cap.tar");
        EXPECT_TRUE(zqlab::file_exists(params.local_file));
        return seen;
    });
}

// A stand-in for tcpdump, first in PATH for this test's process and the
// shells it starts: it writes the arguments it got, NUL-separated (to a
// scratch name first, so a reader never sees half of them), and stays until
// it is stopped, as a capture does. Its process name is tcpdump, so the
// library sees its capture start.
constexpr const char *RECORDER_DIR = "/tmp/zq-tcpdump-recorder";
constexpr const char *RECORDED_ARGV = "/tmp/zq-tcpdump-argv";
constexpr const char *RECORDER = "#!/bin/sh\n"
                                 "printf '%s\\0' \"$@\" >/tmp/zq-tcpdump-argv.new\n"
                                 "mv /tmp/zq-tcpdump-argv.new /tmp/zq-tcpdump-argv\n"
                                 "trap 'kill $! 2>/dev/null; exit 0' TERM\n"
                                 "sleep 60 &\n"
                                 "wait\n";

// The capture block names its interface by index; the diagnosis manager
// names the interface.
TEST_F(Injection, CaptureInterfaceFromTheManager) {
    run_field({"diagM wan_info nas_interface (capture)", {INTERFACE_REFUSALS, NUL_REFUSAL}, true, false},
              [](const payload &p) {
                  zqlab::put("wan.2.nas_interface", p.text);
                  memset(&g_cap_exec, 0, sizeof(g_cap_exec));
                  g_cap_exec.kind = 1;
                  g_cap_exec.action = 1;
                  observation seen;
                  seen.log = log_of([] {
                      if (capture_set() == 0) { // a NUL's prefix is an interface
                          g_cap_exec.action = 0;
                          capture_set();
                      }
                  });
                  EXPECT_EQ(is_diag_permit_holding(), 0);
                  return seen;
              });
}

TEST_F(Injection, ProcessName) {
    run_field({"zq_get_pid name", {"invalid process name"}, true, true}, [](const payload &p) {
        observation seen;
        seen.log = log_of([&] { EXPECT_EQ(zq_get_pid(std::string(p.text.c_str()).c_str()), 0u); });
        return seen;
    });
}

TEST_F(Injection, PresetDnsSourceOfACallersRecord) {
    run_field({"v4_ping_preset_dns record v4_ip", {"is no address or interface"}, true, true},
              [](const payload &p) {
                  zqSD_wan_diag wan{};
                  fill(wan.v4_ip, p.text);
                  observation seen;
                  // Refused as a source, the servers are still pinged.
                  seen.log = log_of([&] { v4_ping_preset_dns(reinterpret_cast<char *>(&wan)); });
                  return seen;
              });
}

TEST_F(Injection, StepMethodName) {
    run_field({"zq_intact_diag_run step.method", {"can't find the method"}, true, false},
              [](const payload &p) {
                  zq_diag_step s{};
                  fill(s.method, p.text);
                  s.action = ACTION_DIAG;
                  observation seen;
                  seen.log = log_of([&] { zq_intact_diag_run(&s); });
                  EXPECT_NE(std::string(zq_diag_msg).find("processing fail"), std::string::npos);
                  return seen;
              });
}

// ---- The gateway's files ------------------------------------------------------------

// ---- Decoded captures -------------------------------------------------------------------

// Text that tcpdump printed about packets: the Service-Name of a PPPoE
// discovery, the Hostname of a DHCP request. Both are only read.
TEST_F(Injection, PppoeServiceNameInTheDecodedCapture) {
    run_field({"decoded capture: PPPoE Service-Name", {}, false, false}, [](const payload &p) {
        std::string text;
        for (int i = 0; i < 3; ++i)
            text += "nas0_1 Out PPPoE PADI [Service-Name \"" + p.text + "\"] [Host-Uniq 0x00000004]\n";
        zqlab::write_file(ZQ_CAPTURE_PARSE, text);
        observation seen;
        uint32_t verdict = 0;
        seen.log = log_of([&] {
            zq_diag_msg_reset();
            verdict = zq_check_pppoe_error();
        });
        seen.kept = verdict == 5 && std::string(zq_diag_msg).find("[warn   ]\tNo servers respond!\n") == 0;
        return seen;
    });
}

} // namespace
