/*
 * The end of capture streams.
 *
 * libpipewire (seen with 0.3.65) never closes the two descriptors that the server sends for a stream that
 * has gone meanwhile. A stream that is still being set up therefore stays until it has been.
 *
 * Threads: main loop only.
 */
#pragma once

struct pw_stream;

/** Takes a stream over, without listeners of the caller's, and destroys it now or as soon as it may go. */
void hs_stream_retire(pw_stream *stream);

/** Destroys the streams that still wait. */
void hs_stream_retire_finish();
