/* SPDX-License-Identifier: MIT */
/*
 * Plug-ins for hear-sense in C++20, on top of <hear-sense/plugin.h>.
 *
 *     class clap final : public hear_sense::plugin
 *     {
 *     public:
 *         using plugin::plugin;
 *
 *     private:
 *         void process(channels heard) override
 *         {
 *             clapping.tell(*std::max_element(heard[0].begin(), heard[0].end()) > threshold.value());
 *         }
 *
 *         hear_sense::setting<float> threshold{
 *             *this, {.title = "Threshold", .initial = 0.5F, .minimum = 0.0F, .maximum = 1.0F}};
 *         hear_sense::detection clapping{*this, {.title = "Clap"}};
 *     };
 *
 *     HS_EXPORT_PLUGIN(clap, {.name = "clap"})
 *
 * An object of the class is one plug-in on one microphone. Settings are in sdk/settings.hpp, events in
 * sdk/events.hpp, what the class inherits in sdk/base.hpp, what becomes of the samples in sdk/audio.hpp.
 *
 * Life: the object is made with the handle. start() and stop() stand around the audio and always in turn, in
 * whatever order the daemon calls; process() comes between them only. Whenever there is no audio, each event
 * has the value that it was declared with.
 *
 * Threads: the daemon's one calls everything. Nothing may block.
 *
 * Failure: functions that return an int give 0 or a negative errno. Exceptions may leave any function of a
 * plug-in; they are logged, and the daemon is told -ENOMEM for std::bad_alloc, -EINVAL for a
 * std::invalid_argument, else -EIO. One that leaves process() ends the hearing until the next start().
 */
#ifndef HEAR_SENSE_PLUGIN_HPP
#define HEAR_SENSE_PLUGIN_HPP

#include <deque>

#include <spa/support/plugin.h>
#include <spa/utils/defs.h>

#include <hear-sense/sdk/base.hpp>
#include <hear-sense/sdk/entry.hpp>
#include <hear-sense/sdk/events.hpp>
#include <hear-sense/sdk/settings.hpp>

/** Exports a library with several names: GET_FACTORIES returns a const std::deque<hear_sense::factory> &. */
#define HS_EXPORT_PLUGINS(GET_FACTORIES)                                                                               \
	extern "C" SPA_EXPORT int spa_handle_factory_enum(const spa_handle_factory **result, uint32_t *index)          \
	{                                                                                                              \
		return hear_sense::enum_factories(GET_FACTORIES, result, index);                                       \
	}

/** Exports a library with one: the class, and its plugin_info in braces. Once, outside of any namespace. */
#define HS_EXPORT_PLUGIN(CLASS, ...)                                                                                   \
	static const std::deque<hear_sense::factory> &hs_exported_factories()                                          \
	{                                                                                                              \
		static const std::deque<hear_sense::factory> factories = [] {                                          \
			std::deque<hear_sense::factory> only;                                                          \
			only.emplace_back(hear_sense::plugin_info __VA_ARGS__, hear_sense::make_plugin<CLASS>);        \
			return only;                                                                                   \
		}();                                                                                                   \
		return factories;                                                                                      \
	}                                                                                                              \
	HS_EXPORT_PLUGINS(hs_exported_factories)

#endif /* HEAR_SENSE_PLUGIN_HPP */
