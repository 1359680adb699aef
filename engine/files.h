// The files the library keeps under /tmp and the markers its logs hold,
// named once for its layers and for the command-line tool that reads them.
#pragma once

namespace zq {

// The diagnosis: its log, the command log and the package that is uploaded.
constexpr const char *ZQ_DIAG_DIR = "/tmp/diag_file/";
constexpr const char *ZQ_DIAG_LOG_PATH = "/tmp/diag_file/diag_log";
constexpr const char *ZQ_CMD_LOG_PATH = "/tmp/diag_file/cmd_log";
constexpr const char *ZQ_PACKAGE_PATH = "/tmp/diag_file/diag_log.tar";
constexpr const char *ZQ_PACKAGE_NAME = "diag_log.tar";

// The capture: a single capture's file, rotate mode's two files, the
// archive that is uploaded, and the decoded capture that methods read.
constexpr const char *ZQ_CAPTURE_DIR = "/tmp/capture_file/";
constexpr const char *ZQ_CAPTURE_PCAP = "/tmp/capture_file/capture.pcap";
constexpr const char *ZQ_CAPTURE_PCAP0 = "/tmp/capture_file/capture.pcap0";
constexpr const char *ZQ_CAPTURE_PCAP1 = "/tmp/capture_file/capture.pcap1";
constexpr const char *ZQ_CAPTURE_TAR = "/tmp/capture_file/capture.tar";
constexpr const char *ZQ_CAPTURE_TAR_NAME = "capture.tar";
constexpr const char *ZQ_CAPTURE_PARSE = "/tmp/capture_file/capture_parse";

// The step that closes every path (not a method), as the log names it.
constexpr const char *END_STEP = "end";

// The message log's level prefixes, by level (DIAG_MSG_NORMAL to
// DIAG_MSG_ERROR), nine characters each; the diagnosis log holds them too.
constexpr const char *ZQ_LEVEL_PREFIX[] = {"[normal ]", "[success]", "[warn   ]", "[error  ]"};
constexpr unsigned ZQ_LEVEL_PREFIX_LEN = 9;

} // namespace zq
