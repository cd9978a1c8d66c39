/* A metrics file that other software has edited. */
#include "fuzz.hpp"

#include "metrics.hpp"
#include "plugin.hpp"
#include "source.hpp"

#include "../unit/temp-dir.hpp"

namespace {

struct counts {
	uint32_t enabled;
	uint32_t disabled;

	bool operator==(const counts &) const = default;
};

counts counts_of(const hs_metrics *metrics)
{
	const auto *data = static_cast<const hs_source_metrics *>(metrics->data);
	return {data->enabled_count, data->disabled_count};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const hs_temp_dir folder;
	const std::string path = folder / "ear_node_source_metrics.json";
	const std::string_view text{reinterpret_cast<const char *>(data), size};

	hs_plugin plugin{};
	std::snprintf(plugin.name, sizeof(plugin.name), "ear");
	hs_source source{};
	source.name = "node";
	source.plugin = &plugin;

	hs_metrics_init(folder.path().c_str());
	hs_write_text(path, text);
	hs_metrics *metrics = hs_metrics_create(HS_METRICS_TYPE_SOURCE, &source);
	HS_REQUIRE(metrics);
	hs_metrics_set_active(metrics, true);
	const counts found = counts_of(metrics);
	if (text.empty()) {
		/* What cannot be read is left alone. */
		HS_REQUIRE(std::filesystem::exists(path) && hs_read_text(path).empty());
	} else {
		/* From now on the file is the daemon's own, and counts go up by one. */
		const std::string written = hs_read_text(path);
		hs_metrics_set_active(metrics, true);
		HS_REQUIRE(counts_of(metrics) == found && hs_read_text(path) == written);
		hs_metrics_increment_counter(metrics, "enabled_count");
		HS_REQUIRE((counts_of(metrics) == counts{found.enabled + 1, found.disabled}));
		hs_metrics_increment_counter(metrics, "disabled_count");
		HS_REQUIRE((counts_of(metrics) == counts{found.enabled + 1, found.disabled + 1}));
		const std::string last = hs_read_text(path);
		hs_metrics_increment_counter(metrics, "other");
		HS_REQUIRE(hs_read_text(path) == last);
	}
	hs_metrics_destroy(metrics);
	hs_metrics_deinit();
	return 0;
}
