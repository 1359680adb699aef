// Stand-in for the rotate-mode capture until its continuous upload is
// built: a start in rotate mode fails cleanly.
#include "capture/capture.h"
#include "engine/log.h"

int start_rotate_capture(tcpdump_req /*req*/) {
    ZQ_LOG("rotate mode capture is not built yet");
    return -1;
}
