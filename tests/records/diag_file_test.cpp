// The diagnosis log, the record dump, the package and the clean-up, in a
// simulated gateway (every case gets a fresh one when run through CTest).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "engine/util.h"
#include "lab/zqlab.hpp"
#include "records/records.h"

using namespace zq;

namespace {

const std::string DIAG_LOG = "/tmp/diag_file/diag_log";
const std::string PACKAGE = "/tmp/diag_file/diag_log.tar";

class DiagFile : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(zqlab::inside()) << "these cases write the gateway's paths; run them in the lab";
        // Cases may also run one after another in one lab.
        zqlab::scenario("healthy-gpon");
        zqlab::clear_journal();
        do_not_generate_log = 0;
        clear_diag_chain();
        zq_diag_msg_reset();
        zqlab::run("rm -rf /tmp/diag_file /tmp/capture_file");
    }
    void TearDown() override {
        do_not_generate_log = 0;
        clear_diag_chain();
    }

    template <class T> static void store(uint32_t type, const T &record) {
        ASSERT_EQ(zq_diag_record(type, &record, sizeof(record)), 0);
    }
    static zq_diag_step step(const char *method, uint32_t action) {
        zq_diag_step s{};
        zq::copy(s.method, method);
        s.action = action;
        return s;
    }
    static std::string log() { return zqlab::read_file(DIAG_LOG); }
    static std::string members() { return zqlab::run("tar -tf " + PACKAGE); }
    // A fresh, empty diagnosis directory, as the first step of a path leaves it.
    static void start_diagnosis() {
        diag_file_init();
        ASSERT_TRUE(zqlab::file_exists("/tmp/diag_file"));
    }
};

// ---- The package ------------------------------------------------------------------

TEST_F(DiagFile, PackageHoldsEveryPieceOfEvidenceInTableOrder) {
    start_diagnosis();
    diag_log_record(step("port_status", ACTION_DIAG));
    zq_get_cmd_result("echo hello");
    zqlab::write_file("/tmp/capture_file/capture.pcap", "captured packets");
    zqlab::set("pon.debug", "1");
    ASSERT_EQ(zq_packet_diag_file(), 0);
    // The lab cannot provide /proc/serial_log, so serial_log is never there.
    EXPECT_EQ(members(), "diag_log\ncmd_log\ncapture.pcap\nomcilog.par\nfirewall_stat\nconfig_stat\n");
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/capture.pcap"), "captured packets");
    EXPECT_EQ(zqlab::read_file("/tmp/diag_file/omcilog.par"), zqlab::read_file("/tmp/omcilog.par"));
    EXPECT_TRUE(zqlab::file_exists("/tmp/capture_file/capture.pcap")) << "copied, not moved";
    EXPECT_EQ(zqlab::run("tar -xOf " + PACKAGE + " capture.pcap"), "captured packets");
}

} // namespace
