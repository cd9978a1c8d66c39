/*
 * The daemon's log topic, "hear-sense".
 *
 * Include this in sources instead of pipewire/log.h: pw_log_error() and its kin then log on the topic,
 * so that PIPEWIRE_DEBUG=2,hear-sense:4 shows the daemon's debug lines and PipeWire's warnings.
 */
#pragma once

#include <pipewire/log.h>

PW_LOG_TOPIC_EXTERN(hs_log_topic);
#undef PW_LOG_TOPIC_DEFAULT
#define PW_LOG_TOPIC_DEFAULT hs_log_topic

/** Gives the topic its level from the environment; call it once, after pw_init. */
void hs_log_init();
