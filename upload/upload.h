// Internal interface of the uploads: the workers that send a finished
// diagnosis or capture archive.
#pragma once

// The capture upload worker, started by capture_set with the capture
// block's worker as its handle. Detaches itself; at its end sets the
// block's state (3 sent, 5 failed), file_name, and clears worker.
void *capture_upload(void *);
