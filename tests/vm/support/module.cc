// SPDX-License-Identifier: GPL-2.0-only
#include "support/module.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "moxlab.hpp"

namespace vm {

std::string module_file(const std::string &name)
{
	const char *directory = std::getenv("MOX_MODULES");
	return std::string(directory ? directory : "/modules") + "/" + name + ".ko";
}

int load_module(const std::string &name)
{
	int fd = ::open(module_file(name).c_str(), O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return errno;
	int error = ::syscall(SYS_finit_module, fd, "", 0) ? errno : 0;
	::close(fd);
	return error;
}

int unload_module(const std::string &name)
{
	return ::syscall(SYS_delete_module, name.c_str(), O_NONBLOCK) ? errno : 0;
}

bool module_present(const std::string &name)
{
	return moxlab::module_loaded(name);
}

bool module_shipped(const std::string &name)
{
	return ::access(module_file(name).c_str(), R_OK) == 0;
}

} // namespace vm
