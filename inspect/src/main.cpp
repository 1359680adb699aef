// zqdiag-inspect: the ISP's side. Reads what gateways upload (diagnosis
// packages, capture archives, rotate-mode capture files) as reports, and a
// fleet's uploads as a database.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "commands.hpp"
#include "refusal.hpp"
#include "report.hpp"

namespace zqinspect {

namespace {

// The exit statuses match zqdiag's: 0 done, 1 refused or failed, 2 bad usage.
constexpr int EXIT_OK = 0, EXIT_FAILED = 1, EXIT_USAGE = 2;

void help() {
    printf(
        "usage: zqdiag-inspect [--color WHEN] COMMAND [OPTIONS]\n\n"
        "Reads what gateways upload to the ISP's server.\n\nCommands:\n"
        "  report ARCHIVE [--format text|json|html] [-o FILE]\n"
        "             one uploaded archive (diagnosis package, capture archive or capture file) as a report\n"
        "  ingest DIR... [--db PATH|URL]\n"
        "             file every archive under DIR into the database (default: DIR/zqdiag-inspect.db)\n"
        "  query QUESTION [--db PATH|URL] [--json] [--gateway ID]\n"
        "             pon-unregistered, pppoe-failures, dhcp-no-server, top-findings, history\n"
        "  export --ndjson [--db PATH|URL] [-o FILE]\n"
        "             one JSON object a line per archive, finding and exchange\n\n"
        "Options:\n  --color WHEN   auto (on a terminal, unless NO_COLOR is set), always, never\n\n"
        "Exit status:\n  0    done\n  1    the input was refused or the command failed\n  2    bad usage\n");
}

int usage_error(const std::string &reason) {
    fprintf(stderr, "zqdiag-inspect: %s\nTry 'zqdiag-inspect --help'.\n", reason.c_str());
    return EXIT_USAGE;
}

} // namespace

bool want_colour(const std::string &when, FILE *stream) {
    if (when == "always") return true;
    if (when == "never") return false;
    const char *term = getenv("TERM");
    return isatty(fileno(stream)) && !getenv("NO_COLOR") && !(term && std::string_view(term) == "dumb");
}

// Writes `text` to `path` ("" or "-": standard output). Only called once
// the whole output is ready, so a refused input leaves no file behind.
bool write_output(const std::string &path, const std::string &text) {
    FILE *f = path.empty() || path == "-" ? stdout : fopen(path.c_str(), "w");
    if (!f) {
        fprintf(stderr, "zqdiag-inspect: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    const bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    const bool closed = f == stdout ? fflush(f) == 0 : fclose(f) == 0;
    if (!ok || !closed)
        fprintf(stderr, "zqdiag-inspect: writing %s failed\n", path.empty() ? "the output" : path.c_str());
    return ok && closed;
}

int run_report(const std::vector<std::string> &args, const std::string &colour) {
    std::string archive, format = "text", output;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if ((a == "--format" || a == "-f") && i + 1 < args.size())
            format = args[++i];
        else if (a.starts_with("--format="))
            format = a.substr(9);
        else if ((a == "-o" || a == "--output") && i + 1 < args.size())
            output = args[++i];
        else if (!a.empty() && a[0] == '-')
            return usage_error("report: unknown option '" + a + "'");
        else if (archive.empty())
            archive = a;
        else
            return usage_error("report: one archive at a time");
    }
    if (archive.empty()) return usage_error("report: which archive?");
    if (format != "text" && format != "json" && format != "html")
        return usage_error("report: --format is text, json or html");
    try {
        const std::string data = read_input_file(archive);
        const Report r = build_report(data, archive);
        const bool to_terminal = output.empty() || output == "-";
        std::string text = format == "json"   ? render_json(r)
                           : format == "html" ? render_html(r)
                                              : render_text(r, to_terminal && want_colour(colour, stdout));
        return write_output(output, text) ? EXIT_OK : EXIT_FAILED;
    } catch (const Refusal &e) {
        fprintf(stderr, "zqdiag-inspect: %s: refused: %s\n", archive.c_str(), e.what());
        return EXIT_FAILED;
    }
}

} // namespace zqinspect

int main(int argc, char **argv) {
    using namespace zqinspect;
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string colour = "auto";
    while (!args.empty() && args[0].starts_with("--")) {
        if (args[0] == "--help") {
            help();
            return EXIT_OK;
        }
        if (args[0] == "--color" && args.size() > 1) {
            colour = args[1];
            args.erase(args.begin(), args.begin() + 2);
        } else if (args[0].starts_with("--color=")) {
            colour = args[0].substr(8);
            args.erase(args.begin());
        } else {
            return usage_error("unknown option '" + args[0] + "'");
        }
    }
    if (colour != "auto" && colour != "always" && colour != "never")
        return usage_error("--color is auto, always or never");
    if (args.empty()) return usage_error("which command?");
    const std::string command = args[0];
    args.erase(args.begin());
    try {
        if (command == "report") return run_report(args, colour);
        if (command == "ingest") return run_ingest(args);
        if (command == "query") return run_query(args, colour);
        if (command == "export") return run_export(args);
        if (command == "help" || command == "-h") {
            help();
            return EXIT_OK;
        }
    } catch (const std::exception &e) {
        fprintf(stderr, "zqdiag-inspect: %s\n", e.what());
        return EXIT_FAILED;
    }
    return usage_error("unknown command '" + command + "'");
}
