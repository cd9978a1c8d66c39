/* SPDX-License-Identifier: MIT */
/*
 * User rights: may this user change that property?
 *
 * A device brings its own libvetto2.so.2 with these three functions; this tree ships a small rights
 * store that stands in for it.
 *
 * Threads: one. Nothing here is safe to call from two threads at once.
 */
#ifndef VETTO2_H
#define VETTO2_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The code of a plain refusal; every other code but 0 tells of trouble inside the library. */
#define VETTO2_NOT_AUTHORIZED 2

/** Why a call failed; zeroed by the caller. */
struct vetto2_error {
	int32_t code;
	char message[256];
};

/** Opens the rights store. False: `error` tells why, and no other call is of use. */
bool vetto2_init(struct vetto2_error *error);

/**
 * Whether `username` (null for a user without a name) may change `key`, an interface name and a
 * property name joined by a point. False: `result` tells why.
 */
bool vetto2_check_username(const char *username, const char *key, struct vetto2_error *result);

/** Closes the rights store; harmless where vetto2_init was never called. */
void vetto2_release(void);

#ifdef __cplusplus
}
#endif

#endif /* VETTO2_H */
