// The diagnosis package, in a fresh simulated gateway.
#include <gtest/gtest.h>

#include <string>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

TEST(DiagFile, PackageHoldsEveryPieceOfEvidenceInTableOrder) {
    ASSERT_TRUE(zqlab::inside()) << "this case writes the gateway's paths; run it in the lab";
    diag_file_init(); // a fresh, empty diagnosis directory, as the first step of a path leaves it
    ASSERT_TRUE(zqlab::file_exists("/tmp/diag_file"));
    zq_diag_step step{};
    zq::copy(step.method, "port_status");
    step.action = ACTION_DIAG;
    diag_log_record(step);
    zq_get_cmd_result("echo hello");
    zqlab::write_file("/tmp/capture_file/capture.pcap", "captured packets");
    zqlab::set("pon.debug", "1");
    ASSERT_EQ(zq_packet_diag_file(), 0);
    // The lab cannot provide /proc/serial_log, so serial_log is never there.
    EXPECT_EQ(zqlab::run("tar -tf /tmp/diag_file/diag_log.tar"),
              "diag_log\ncmd_log\ncapture.pcap\nomcilog.par\nfirewall_stat\nconfig_stat\n");
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/omcilog.par"), zqlab::read_file("/tmp/omcilog.par"));
    EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/capture.pcap")) << "copied, not moved";
    EXPECT_EQ(zqlab::run("tar -xOf /tmp/diag_file/diag_log.tar capture.pcap"), "captured packets");
}

} // namespace
