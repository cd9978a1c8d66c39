/*
 * Records of the model as JSON. The keys stand in docs/hsctl.md and stay.
 */
#pragma once

#include "model.hpp"

namespace hs_ctl {

json describe_chain(const chain &of);
json describe_source(const model &all, const source &of);
json describe_instance(const instance &of);
json describe_setting(const instance &of, const setting &described);
json describe_event(const instance &of, const event &described);

/** The plug-in with its settings and events. */
json describe_all_of(const instance &of);

/** Titles and values of the events; null for one that a private bus has. */
json describe_values(const instance &of);

/** Devices with their sources, these with their plug-ins, these with their events' values. */
json describe_tree(const model &all);

} // namespace hs_ctl
