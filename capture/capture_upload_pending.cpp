// Stand-in for the capture upload worker until the uploads are built: it
// ends at once as a failed upload, so callers see a defined end state.
#include <pthread.h>

#include "engine/exec_block.h"
#include "engine/log.h"
#include "upload/upload.h"

void *capture_upload(void *) {
    pthread_detach(pthread_self());
    ZQ_LOG("capture upload is not built yet");
    zq::set_state(g_cap_exec, EXEC_UPLOAD_FAIL);
    zq::clear_worker(g_cap_exec);
    return &g_cap_exec;
}
