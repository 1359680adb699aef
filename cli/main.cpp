// zqdiag: the command-line front of libzqdiag. It drives the shipped library
// through its exported interface only, the way a management process does.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "commands.hpp"
#include "console.hpp"
#include "diag_run.hpp"
#include "exit_codes.hpp"

namespace {

using namespace zqcli;

constexpr OptionDef GLOBAL_OPTIONS[] = {
    {"help", 'h', nullptr, "show this help ('zqdiag COMMAND --help' for a command)"},
    {"verbose", 'v', nullptr, "show the library's own log lines on the error stream"},
    {"color", 0, "WHEN", "colour the findings: auto (on a terminal, the default), always, never"},
};

constexpr const char *GLOBAL_SYNOPSIS = "[--verbose] [--color WHEN] COMMAND [OPTIONS]";

void print_tool_help() {
    say("usage: zqdiag %s\n\n", GLOBAL_SYNOPSIS);
    say("Runs the gateway's self-diagnosis (libzqdiag) and shows what it finds.\n\nCommands:\n");
    for (const Command &command : commands()) say("  %-10s %s\n", command.name, command.summary);
    say("  %-10s %s\n", "help", "show the help of a command: zqdiag help COMMAND");
    say("\nNote: 'repair' diagnoses first, then repairs what that diagnosis found.\n\n%s",
        options_help(GLOBAL_OPTIONS).c_str());
    say("\nExit status:\n"
        "  0    done; the run wrote no error-level finding\n"
        "  1    the run wrote an error-level finding, or the command failed\n"
        "  2    bad usage\n"
        "  3    the diagnosis could not run (busy, permit taken, alarm, no diagnosis manager)\n"
        "  4    timed out waiting for the run to end\n"
        "  130  interrupted\n");
}

int tool_usage_error(const std::string &reason) {
    fprintf(console().err, "zqdiag: %s\nusage: zqdiag %s\nTry 'zqdiag --help'.\n", reason.c_str(),
            GLOBAL_SYNOPSIS);
    return EXIT_USAGE;
}

// ---- Signals ----------------------------------------------------------------
// A run given up on a signal must give back the permit it holds, or the
// gateway stays locked. But while the library runs a shell command with
// system(), SIGINT and SIGQUIT are ignored in the whole process and a SIGINT
// sent then is lost. So a run goes on in a child process while the parent
// waits: the parent turns every stop signal into a SIGTERM for the child,
// which system() leaves alone.

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t g_run_pid = 0;

void on_stop_signal(int) { g_interrupted = 1; }
void forward_stop_signal(int) {
    if (g_run_pid > 0) kill(g_run_pid, SIGTERM);
}
void on_broken_pipe(int) {} // a reader that went away is no reason to leave the permit taken

// Handlers rather than SIG_IGN: ignored signals would stay ignored in the
// shell commands the library runs.
void set_handler(int signal, void (*handler)(int)) {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

void install_signal_handlers() {
    for (int signal : STOP_SIGNALS) set_handler(signal, on_stop_signal);
    set_handler(SIGPIPE, on_broken_pipe);
}

int status_of_child(int wait_status) {
    if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
    if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
    return EXIT_FINDING_ERROR;
}

// The stop signals are held back around the fork, so one that comes in
// meanwhile reaches the handler that fits the process it ends up in.
void block_stop_signals(int how) {
    sigset_t set;
    sigemptyset(&set);
    for (int signal : STOP_SIGNALS) sigaddset(&set, signal);
    sigprocmask(how, &set, nullptr);
}

// Runs the command in a child process (see above) and returns its status.
int run_supervised(const Command &command, const ParsedArgs &args) {
    console_flush();
    block_stop_signals(SIG_BLOCK);
    const pid_t child = fork();
    if (child <= 0) { // the child, or no supervisor at all: run here
        block_stop_signals(SIG_UNBLOCK);
        return command.run(command, args);
    }
    g_run_pid = child;
    for (int signal : STOP_SIGNALS) set_handler(signal, forward_stop_signal);
    block_stop_signals(SIG_UNBLOCK);
    int wait_status = 0;
    while (waitpid(child, &wait_status, 0) < 0)
        if (errno != EINTR) return EXIT_FINDING_ERROR;
    return status_of_child(wait_status);
}

bool read_colour_mode(const ParsedArgs &globals, ColourMode &mode) {
    const std::string *when = globals.value("color");
    if (!when || *when == "auto") return true;
    if (*when == "always") {
        mode = ColourMode::always;
        return true;
    }
    if (*when == "never") {
        mode = ColourMode::never;
        return true;
    }
    return false;
}

int run_command(const Command &command, std::span<char *const> args) {
    ParsedArgs parsed;
    std::string error;
    if (!parse_args(args, command.options, false, parsed, error)) return usage_error(command, error);
    if (parsed.has("help")) {
        print_command_help(command);
        return EXIT_OK;
    }
    return command.starts_run ? run_supervised(command, parsed) : command.run(command, parsed);
}

// "zqdiag help [COMMAND]"
int run_help(std::span<const std::string> topics) {
    if (topics.empty()) {
        print_tool_help();
        return EXIT_OK;
    }
    const Command *command = find_command(topics.front());
    if (!command || topics.size() > 1) return tool_usage_error("no such command '" + topics.back() + "'");
    print_command_help(*command);
    return EXIT_OK;
}

// The tool's own options are taken after the command too ("zqdiag upload
// --verbose ..."), as a newcomer types them: they are moved in front of the
// command, which defines none of them. A "--" ends the options.
std::vector<char *> globals_first(int argc, char **argv) {
    std::vector<char *> before, moved, after; // before the command (it included), moved, the rest
    bool after_command = false, ended = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const bool takes_value = arg == "--color";
        const bool global = arg == "-v" || arg == "--verbose" || takes_value || arg.starts_with("--color=");
        if (!after_command) {
            before.push_back(argv[i]);
            if (takes_value && i + 1 < argc)
                before.push_back(argv[++i]);
            else
                after_command = !arg.starts_with("-");
            continue;
        }
        ended = ended || arg == "--";
        if (ended || !global) {
            after.push_back(argv[i]);
            continue;
        }
        moved.push_back(argv[i]);
        if (takes_value && i + 1 < argc) moved.push_back(argv[++i]);
    }
    std::vector<char *> args;
    args.reserve(static_cast<size_t>(argc) + 1);
    args.push_back(argc > 0 ? argv[0] : nullptr);
    // The moved options go just before the command, the last of `before`.
    const size_t command = after_command ? before.size() - 1 : before.size();
    args.insert(args.end(), before.begin(), before.begin() + static_cast<std::ptrdiff_t>(command));
    args.insert(args.end(), moved.begin(), moved.end());
    args.insert(args.end(), before.begin() + static_cast<std::ptrdiff_t>(command), before.end());
    args.insert(args.end(), after.begin(), after.end());
    return args;
}

int run_tool(int argc, char **argv) {
    ParsedArgs globals;
    std::string error;
    const std::span<char *const> args(argv + 1, static_cast<size_t>(argc > 0 ? argc - 1 : 0));
    const bool parsed = parse_args(args, GLOBAL_OPTIONS, true, globals, error);
    ColourMode colour = ColourMode::automatic;
    const bool colour_ok = !parsed || read_colour_mode(globals, colour);
    if (!console_init(colour, globals.has("verbose"))) {
        fprintf(stderr, "zqdiag: cannot set up the output streams\n");
        return EXIT_FINDING_ERROR;
    }
    if (!parsed) return tool_usage_error(error);
    if (!colour_ok)
        return tool_usage_error("bad --color '" + *globals.value("color") + "' (auto, always, never)");
    if (globals.has("help")) {
        print_tool_help();
        return EXIT_OK;
    }
    if (globals.positionals.empty()) return tool_usage_error("no command given");

    const std::string &name = globals.positionals.front();
    if (name == "help") return run_help(std::span<const std::string>(globals.positionals).subspan(1));
    const Command *command = find_command(name);
    if (!command) return tool_usage_error("unknown command '" + name + "'");
    // The command's own arguments: the last positionals.size() - 1 of argv.
    const size_t first = static_cast<size_t>(argc) - globals.positionals.size() + 1;
    return run_command(*command, std::span<char *const>(argv + first, globals.positionals.size() - 1));
}

} // namespace

int main(int argc, char **argv) {
    install_signal_handlers();
    std::vector<char *> args = globals_first(argc, argv);
    const int status = run_tool(static_cast<int>(args.size()), args.data());
    // A run given up on a timeout may leave the library's worker thread
    // behind; end the process without running exit handlers under it.
    console_flush();
    _exit(status);
}
