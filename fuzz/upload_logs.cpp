// zqdiag-inspect's readers of a package's text files and of upload names:
// any text as a diagnosis log, a command log and an upload name (the first
// byte picks which, and which rendering: text, JSON or HTML). The renderings
// never carry a raw control character, and the HTML never an element the
// gateway wrote.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "logs.hpp"
#include "report.hpp"
#include "text.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    zqinspect::Report r;
    r.name = "11161621dia.tar";
    r.kind = zqinspect::UploadKind::diagnosis;
    switch (data[0] % 3) {
    case 0:
        r.log = zqinspect::parse_diag_log(text);
        break;
    case 1:
        r.commands = zqinspect::parse_commands(text, "cmd_log");
        break;
    default: {
        r.upload = zqinspect::parse_upload_name(text);
        for (const std::string &t : r.upload.times)
            if (t.size() != 11) abort();
        r.name = text;
    }
    }
    // One rendering per input (the same byte picks it), so that each run
    // stays cheap: the JSON one alone costs more than the parsing.
    switch (data[0] / 3 % 3) {
    case 0: {
        const std::string out = zqinspect::render_text(r, false);
        for (const char c : out)
            if (static_cast<unsigned char>(c) < 0x20 && c != '\n' && c != '\t') abort();
        break;
    }
    case 1: {
        const std::string h = zqinspect::render_html(r);
        if (h.find("<script") != std::string::npos || h.find("<img") != std::string::npos) abort();
        break;
    }
    default:
        zqinspect::render_json(r); // throws on text that is not UTF-8
    }
    return 0;
}
