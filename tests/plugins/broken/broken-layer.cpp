/*
 * Plug-ins made with the C++ layer that go wrong, as broken.c does: built once for each mistake.
 */
#include <algorithm>
#include <cerrno>

#include <hear-sense/plugin.hpp>

namespace {

class meter final : public hear_sense::plugin
{
public:
	using plugin::plugin;

private:
	int start() override
	{
		if (stream().info.rate < 8000)
			return refuse(-EINVAL, "set audio.rate to 8000 or more");
		return 0;
	}

	void process(channels heard) override
	{
		const bool is_loud =
			std::any_of(heard[0].begin(), heard[0].end(), [](float sample) { return sample > 0.5F; });
#ifdef BROKEN_THROWS
		if (is_loud)
			throw 1;
#endif
		loud.tell(is_loud);
	}

#ifdef BROKEN_SPACED
	hear_sense::event<bool> loud{*this, {.title = "Too loud" }};
#else
	hear_sense::event<bool> loud{*this, {.title = "Loud"}};
#endif
};

} // namespace

HS_EXPORT_PLUGIN(meter, {.name = PLUGIN_NAME})
