/*
 * What a node's name turns into: paths, and texts for people.
 *
 * Pure: no bus, no graph. Names are cut at 255 bytes, as a client would see them.
 */
#pragma once

#include <string>
#include <string_view>

/** "AudioDevice0Input0.Unprocessed" gives "AudioDevice0Input0/Unprocessed"; a name without "." gets "/Processed". */
std::string hs_source_name_to_path(std::string_view node_name);

/** The name up to its first ".". */
std::string hs_source_name_to_device(std::string_view node_name);

/** "AudioDevice0Input0" gives "Audio Device 0 Input 0". */
std::string hs_source_name_to_display(std::string_view device_name);

/** "Input", "Output" or "", by what the node's name contains. */
std::string hs_source_name_to_direction(std::string_view node_name);

/** `text` cut to at most `size` - 1 bytes, as a buffer of `size` bytes would hold it. */
std::string hs_source_name_cut(std::string text, size_t size);
