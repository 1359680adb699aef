// Why an upload server did not take a file, found out by asking it: after a
// failed FTP upload the library's log says only that wput and the ftp
// client failed, so the tool connects to the server itself and walks the
// login and the directory, each step with a short time-out.
#pragma once

#include <string>

namespace zqcli {

// The parts of an upload URL (one the library's rules accept).
struct ServerUrl {
    bool tftp = false;
    std::string host;
    unsigned port = 0;
    std::string user, password, path;
};
ServerUrl split_server_url(const std::string &url);

// The cause of a failed FTP upload, as one sentence: the name does not
// resolve, the server is unreachable, refuses the connection, does not
// answer in time, refuses the login or the directory; or, when it takes all
// of those, that it did not take the file itself.
std::string probe_ftp_failure(const ServerUrl &server);

} // namespace zqcli
