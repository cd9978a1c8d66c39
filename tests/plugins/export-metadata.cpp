/*
 * Exports an empty metadata object under the name that is its argument, until it is killed.
 *
 * The tools of PipeWire write to metadata that is there and cannot make any.
 */
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <pipewire/extensions/metadata.h>
#include <pipewire/impl.h>
#include <pipewire/pipewire.h>

namespace {

template <auto Release>
struct Releaser {
	template <typename T>
	void operator()(T *handle) const noexcept
	{
		static_cast<void>(Release(handle));
	}
};

int fail(const char *what)
{
	std::perror(what);
	return EXIT_FAILURE;
}

} // namespace

int main(int argc, char **argv)
{
	pw_init(&argc, &argv);
	if (argc != 2) {
		std::fprintf(stderr, "usage: %s NAME\n", argv[0]);
		return EXIT_FAILURE;
	}
	const std::unique_ptr<pw_main_loop, Releaser<pw_main_loop_destroy>> loop(pw_main_loop_new(nullptr));
	if (loop == nullptr)
		return fail("main loop");
	const std::unique_ptr<pw_context, Releaser<pw_context_destroy>> context(
		pw_context_new(pw_main_loop_get_loop(loop.get()), nullptr, 0));
	if (context == nullptr)
		return fail("context");
	pw_core *core = pw_context_connect(context.get(), nullptr, 0);
	if (core == nullptr)
		return fail("core");
	pw_properties *properties = pw_properties_new(PW_KEY_METADATA_NAME, argv[1], nullptr);
	pw_impl_metadata *metadata = pw_context_create_metadata(context.get(), argv[1], properties, 0);
	if (metadata == nullptr)
		return fail("metadata");
	const spa_dict_item items[] = {SPA_DICT_ITEM_INIT(PW_KEY_METADATA_NAME, argv[1])};
	const spa_dict dict = SPA_DICT_INIT_ARRAY(items);
	if (pw_core_export(core, PW_TYPE_INTERFACE_Metadata, &dict, pw_impl_metadata_get_implementation(metadata), 0) ==
		nullptr)
		return fail("export");
	pw_main_loop_run(loop.get());
	return EXIT_SUCCESS;
}
