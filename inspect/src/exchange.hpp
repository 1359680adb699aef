// DHCP exchanges and PPPoE sessions decoded from capture frames, and the
// verdict the gateway's own dhcp_status and pppoe_status analysis gives for
// the same packets.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pcap.hpp"

namespace zqinspect {

enum class Lane { client, server };

struct Message {
    double time = 0;
    Lane from = Lane::client;
    std::string name;                                        // "DISCOVER", "PADI", "LCP Conf-Request"
    std::vector<std::pair<std::string, std::string>> fields; // key fields, in order
    bool analysed = true; // passes the gateway's own interface filter (addressed to or sent by it)
};

// One ladder: every DHCP or PPPoE message of one interface of a capture, in
// time order, with where it stopped and the verdict.
struct Exchange {
    std::string protocol;  // "dhcp" or "pppoe"
    std::string capture;   // the member it came from
    std::string interface; // "ifindex 3", "vlan 10", or "" for a plain capture
    std::string client;    // the gateway's MAC
    std::string server;    // the server's MAC or address, when one answered
    std::vector<Message> messages;
    std::string stopped_at; // the stage the exchange did not complete, or "complete"
    uint32_t verdict = 0;   // dhcp_state / pppoe_state of the gateway's analysis
    std::string verdict_text;
    std::vector<std::pair<unsigned, std::string>> findings; // per requested service: level, text
};

// Collects the frames of one capture member and groups them into ladders.
class ExchangeDecoder {
  public:
    explicit ExchangeDecoder(std::string capture) : capture_(std::move(capture)) {}
    void add(const Frame &frame);
    // The ladders, DHCP first, each protocol by interface.
    std::vector<Exchange> finish();

    static constexpr size_t MESSAGE_CAP = 4000; // messages kept per capture

  private:
    struct Group {
        std::string protocol;
        uint64_t key = 0;
        Exchange exchange;
    };
    Group &group(const std::string &protocol, const Frame &frame);
    void add_dhcp(const Frame &frame, std::string_view udp_payload);
    void add_pppoe(const Frame &frame);

    std::string capture_;
    std::vector<Group> groups_;
    size_t kept_ = 0;
};

// Judges one ladder as the gateway's analysis does (sets stopped_at,
// verdict, verdict_text, findings).
void judge_dhcp(Exchange &exchange);
void judge_pppoe(Exchange &exchange);

std::string mac_text(const uint8_t *mac);

} // namespace zqinspect
