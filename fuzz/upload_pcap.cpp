// zqdiag-inspect's capture reader and its DHCP and PPPoE decoders: any bytes
// as a capture file (the first byte picks a file header of one of the three
// link types, or none, so the fuzzer starts inside the records). Either a
// refusal or ladders within the message cap whose every text is clean, and
// verdicts among the gateway's own values.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "exchange.hpp"
#include "pcap.hpp"
#include "refusal.hpp"
#include "text.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    std::string file;
    static constexpr uint32_t LINKS[] = {1, 113, 276};
    if (data[0] < 3) {
        const uint32_t hdr[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, LINKS[data[0]]};
        file.assign(reinterpret_cast<const char *>(hdr), sizeof(hdr));
    }
    file.append(reinterpret_cast<const char *>(data + 1), size - 1);
    zqinspect::PcapCaps caps;
    caps.packets = 2000;
    try {
        zqinspect::ExchangeDecoder decoder("capture.pcap");
        zqinspect::read_pcap(
            file, [&](const zqinspect::Frame &f) { decoder.add(f); }, caps);
        size_t messages = 0;
        for (const zqinspect::Exchange &e : decoder.finish()) {
            messages += e.messages.size();
            if (e.protocol == "dhcp" && e.verdict > 2) abort();
            if (e.protocol == "pppoe" && e.verdict != 0 && e.verdict != 4 && e.verdict != 5 && e.verdict != 6)
                abort();
            for (const zqinspect::Message &m : e.messages)
                for (const auto &[k, v] : m.fields)
                    if (!zqinspect::is_clean_text(v) || v.find('\n') != std::string::npos) abort();
            for (const auto &f : e.findings)
                if (!zqinspect::is_clean_text(f.second)) abort();
        }
        if (messages > zqinspect::ExchangeDecoder::MESSAGE_CAP) abort();
    } catch (const zqinspect::Refusal &) {
    }
    return 0;
}
