// SPDX-License-Identifier: GPL-2.0-only
#include "services/vsd.hpp"

#include "base/log.hpp"
#include "base/owned.hpp"

namespace mox {
namespace {

constexpr size_t kCwdSize = 4096;
constexpr char kPrefix[] = MOX_VSD_PREFIX;
constexpr size_t kPrefixLen = sizeof(kPrefix) - 1;
static_assert(kPrefixLen == 18);

u32 vsd_of_path(const char *path)
{
	if (__builtin_strncmp(path, kPrefix, kPrefixLen) != 0)
		return 0;
	s32 number = static_cast<s32>(seam_strtoul10(path + kPrefixLen));
	return number < 0 ? 0 : static_cast<u32>(number);
}

} // namespace

u32 current_vsd()
{
	Owned<void, seam_kfree> buf(seam_kmalloc(kCwdSize));
	if (!buf) {
		mox_printk(MOX_KERN_EMERG "Failed to kmalloc buf.\n");
		return 0;
	}
	auto *path = static_cast<char *>(buf.get());
	simple_getcwd(path);
	return vsd_of_path(path);
}

} // namespace mox

extern "C" int simple_getcwd(char *buf)
{
	char *path = seam_cwd_path(buf, mox::kCwdSize);
	if (path)
		__builtin_memmove(buf, path, __builtin_strlen(path) + 1);
	else
		buf[0] = '\0';
	return 0;
}
