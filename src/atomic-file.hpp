/*
 * Whole files only: a reader sees the old text or the new one, never a part, not even after a power cut.
 *
 * Failure: logged once as a warning, negative result; the old file stays as it was until the rename.
 */
#pragma once

#include <cstdio>

/** Writes the content to `stream`, which is empty; a negative result gives the new text up. */
using hs_atomic_file_write_cb = int (*)(FILE *stream, void *data);

/**
 * Replaces the file at `path` with what `write` writes. Returns 0 or more on success, -1 or the callback's
 * or system call's own negative result on failure. A failure to sync the directory is returned although
 * the new text is in place.
 */
int hs_atomic_file_write(const char *path, hs_atomic_file_write_cb write, void *data);
