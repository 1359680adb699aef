#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "records/records.h"

using namespace zq;

namespace {

struct Node {
    uint32_t type;
    unsigned index;
    unsigned count;
    std::string tag;
};

// The chain as (type, index, count, first text field) in order, checking the
// back links on the way.
std::vector<Node> walk() {
    std::vector<Node> out;
    const diag_data_node *prev = &zq_diag_data_chain;
    for (const diag_data_node *n = zq_diag_data_chain.next; n; n = n->next) {
        EXPECT_EQ(n->prev, prev);
        EXPECT_EQ(n->size, get_diag_data_size(n->type));
        out.push_back(
            {n->type, n->index, n->count, static_cast<const char *>(n->data) + (n->type == 1 ? 4 : 0)});
        prev = n;
    }
    return out;
}

zqSD_wan_diag wan(const char *type) {
    zqSD_wan_diag w{};
    strcpy(w.type, type);
    return w;
}
zqSD_port_diag port(const char *status) {
    zqSD_port_diag p{};
    strcpy(p.status, status);
    return p;
}

class RecordChain : public ::testing::Test {
  protected:
    void SetUp() override { clear_diag_chain(); }
    void TearDown() override { clear_diag_chain(); }
};

TEST(RecordSizes, TableAndUnknownCodes) {
    EXPECT_EQ(get_diag_data_size(0), 0u);
    EXPECT_EQ(get_diag_data_size(6), 0u);
    EXPECT_EQ(get_diag_data_size(0xffffffffu), 0u);
    const uint64_t sizes[] = {308, 40, 72, 140, 432};
    for (uint32_t t = 1; t <= 5; ++t) EXPECT_EQ(get_diag_data_size(t), sizes[t - 1]) << t;
}

TEST_F(RecordChain, RunsStayContiguousInStoreOrder) {
    auto a = wan("A"), b = wan("B");
    auto p = port("P");
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &a, sizeof(a)), 0);
    ASSERT_EQ(zq_diag_record(PORT_DIAG_DATA, &p, sizeof(p)), 0);
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &b, sizeof(b)), 0);
    auto nodes = walk();
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(nodes[0].tag, "A");
    EXPECT_EQ(nodes[1].tag, "B");
    EXPECT_EQ(nodes[2].tag, "P");
    EXPECT_EQ(nodes[0].index, 0u);
    EXPECT_EQ(nodes[1].index, 1u);
    EXPECT_EQ(nodes[0].count, 2u);
    EXPECT_EQ(nodes[1].count, 2u);
    EXPECT_EQ(nodes[2].count, 1u);
    EXPECT_EQ(nodes[2].index, 0u);
    EXPECT_EQ(zq_search_diag_record(PORT_DIAG_DATA)->data, zq_diag_data_chain.next->next->next->data);
}

TEST_F(RecordChain, StoresACopyTheCallerKeepsOwning) {
    auto a = wan("A");
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &a, sizeof(a)), 0);
    strcpy(a.type, "changed");
    EXPECT_STREQ(static_cast<zqSD_wan_diag *>(zq_search_diag_record(WAN_DIAG_DATA)->data)->type, "A");
}

TEST_F(RecordChain, NinthRecordOfATypeIsRefused) {
    for (int i = 0; i < 8; ++i) {
        auto p = port(std::to_string(i).c_str());
        ASSERT_EQ(zq_diag_record(PORT_DIAG_DATA, &p, sizeof(p)), 0);
    }
    auto w = wan("W");
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0);
    auto ninth = port("9");
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_diag_record(PORT_DIAG_DATA, &ninth, sizeof(ninth)), -1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("data chain of type[2] is reach max support num"), std::string::npos) << log;
    EXPECT_NE(log.find("diag record fail"), std::string::npos) << log;
    EXPECT_LT(log.find("reach max"), log.find("diag record fail"));
    auto nodes = walk();
    ASSERT_EQ(nodes.size(), 9u);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(nodes[i].tag, std::to_string(i));
        EXPECT_EQ(nodes[i].count, 8u);
        EXPECT_EQ(nodes[i].index, static_cast<unsigned>(i));
    }
}

TEST_F(RecordChain, SingleRecordTypesAreReplacedInPlace) {
    zqSD_sys_diag s1{}, s2{};
    s1.fault_flags = 1;
    s2.fault_flags = 64;
    zqSD_pon_diag pon{};
    ASSERT_EQ(zq_diag_record(SYS_DIAG_DATA, &s1, sizeof(s1)), 0);
    ASSERT_EQ(zq_diag_record(PON_DIAG_DATA, &pon, sizeof(pon)), 0);
    ASSERT_EQ(zq_diag_record(SYS_DIAG_DATA, &s2, sizeof(s2)), 0);
    auto nodes = walk();
    ASSERT_EQ(nodes.size(), 2u);
    EXPECT_EQ(nodes[0].type, SYS_DIAG_DATA);
    EXPECT_EQ(nodes[0].count, 1u);
    EXPECT_EQ(static_cast<zqSD_sys_diag *>(zq_search_diag_record(SYS_DIAG_DATA)->data)->fault_flags, 64u);
}

TEST_F(RecordChain, MismatchedStoresChangeNothing) {
    zqSD_wan_diag w{};
    testing::internal::CaptureStdout();
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, 307), -1);
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, 0), -1);
    EXPECT_EQ(zq_diag_record(0, &w, 308), -1);
    EXPECT_EQ(zq_diag_record(WAN_DIAG_DATA, nullptr, 308), -1);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_NE(log.find("type[1]"), std::string::npos) << log;
    EXPECT_EQ(zq_diag_data_chain.next, nullptr);
}

TEST_F(RecordChain, SearchAndClear) {
    EXPECT_EQ(zq_search_diag_record(PORT_DIAG_DATA), nullptr);
    auto p = port("P");
    ASSERT_EQ(zq_diag_record(PORT_DIAG_DATA, &p, sizeof(p)), 0);
    EXPECT_NE(zq_search_diag_record(PORT_DIAG_DATA), nullptr);
    EXPECT_EQ(zq_search_diag_record(0), nullptr); // the head's type 0 never matches
    clear_diag_chain();
    EXPECT_EQ(zq_search_diag_record(PORT_DIAG_DATA), nullptr);
    EXPECT_EQ(zq_diag_data_chain.next, nullptr);
    EXPECT_EQ(search_single_record(PORT_DIAG_DATA), nullptr);
}

TEST_F(RecordChain, ReadingPatternVisitsTheRunInOrderAndStopsEarly) {
    for (const char *t : {"a", "b", "c"}) {
        auto w = wan(t);
        ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0);
    }
    auto p = port("P");
    ASSERT_EQ(zq_diag_record(PORT_DIAG_DATA, &p, sizeof(p)), 0);
    std::string seen;
    list_diag_record<zqSD_wan_diag>("reader", [&](zqSD_wan_diag &w) {
        seen += w.type;
        return false;
    });
    EXPECT_EQ(seen, "abc");
    seen.clear();
    list_diag_record<zqSD_wan_diag>("reader", [&](zqSD_wan_diag &w) {
        seen += w.type;
        return seen.size() == 2;
    });
    EXPECT_EQ(seen, "ab");
}

TEST_F(RecordChain, ReadingPatternRefusesAReaderOfAnotherLayout) {
    auto w = wan("a");
    ASSERT_EQ(zq_diag_record(WAN_DIAG_DATA, &w, sizeof(w)), 0);
    testing::internal::CaptureStdout();
    diag_data_node *head =
        list_record_head("old_reader", WAN_DIAG_DATA, "zqSD_wan_diag", "WAN_DIAG_DATA", 300);
    std::string log = testing::internal::GetCapturedStdout();
    EXPECT_EQ(head, nullptr);
    EXPECT_NE(log.find("![old_reader "), std::string::npos) << log;
    EXPECT_NE(log.find(" sizeof(zqSD_wan_diag) = 300"), std::string::npos) << log;
    EXPECT_NE(log.find(" get_diag_data_size(WAN_DIAG_DATA) = 308"), std::string::npos) << log;
    EXPECT_NE(log.find("list record fail"), std::string::npos) << log;
}

} // namespace
