/*
 * A rights library that tells what was asked of it.
 *
 * Each call is appended as one line to the file that HS_DOUBLE_LOG names. With HS_DOUBLE_FAIL set,
 * vetto2_init fails with code 7 and the text of that variable; with HS_DOUBLE_REFUSE set to a code and a
 * text, every check is refused with these, else allowed.
 */
#include "vetto2.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

void note(const char *text, const char *detail)
{
	const char *path = std::getenv("HS_DOUBLE_LOG");

	if (path == nullptr)
		return;
	std::FILE *file = std::fopen(path, "ae");
	if (file == nullptr)
		return;
	std::fprintf(file, "%s%s\n", text, detail);
	std::fclose(file);
}

} // namespace

EXPORT bool vetto2_init(struct vetto2_error *error)
{
	const char *failure = std::getenv("HS_DOUBLE_FAIL");

	note("init", "");
	if (failure == nullptr)
		return true;
	error->code = 7;
	std::snprintf(error->message, sizeof(error->message), "%s", failure);
	return false;
}

EXPORT bool vetto2_check_username(const char *username, const char *key, struct vetto2_error *result)
{
	const char *refusal = std::getenv("HS_DOUBLE_REFUSE");

	note("check ", ((username != nullptr ? username : "(null)") + std::string(" ") + key).c_str());
	if (refusal == nullptr)
		return true;
	char *text = nullptr;
	result->code = static_cast<int32_t>(std::strtol(refusal, &text, 10));
	std::snprintf(result->message, sizeof(result->message), "%s", text + std::strspn(text, " "));
	return false;
}

EXPORT void vetto2_release(void)
{
	note("release", "");
}
