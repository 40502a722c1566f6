// SPDX-License-Identifier: GPL-2.0-only
// The virtual switch device that a working directory names.
#include "services/vsd.hpp"

#include "fake/fixture.h"

using namespace mox;
using fake::Fail;
using fake::kernel;

namespace {

class Vsd : public fake::KernelTest {};

TEST_F(Vsd, current__by_working_directory)
{
	struct {
		const char *cwd;
		u32 vsd;
	} const cases[] = {
		{ "/", 0 },
		{ "/root", 0 },
		{ "", 0 },
		{ "/data/var/run/vsd/0", 0 },
		{ "/data/var/run/vsd/0/further/path", 0 },
		{ "/data/var/run/vsd/3", 3 },
		{ "/data/var/run/vsd/3/further/path", 3 },
		{ "/data/var/run/vsd/3abc", 3 },
		{ "/data/var/run/vsd/0x10", 0 },
		{ "/data/var/run/vsd/007", 7 },
		{ "/data/var/run/vsd/4094", 4094 },
		// The prefix ends with its slash.
		{ "/data/var/run/vsd", 0 },
		{ "/data/var/run/vsd3", 0 },
		{ "/data/var/run/vsd/", 0 },
		{ "/data/var/run/vsd/abc", 0 },
		{ "/data/var/run/vsd/ 3", 0 },
		{ "/data/var/run/vsd/-1", 0 },
		{ "/data/var/run/vsd/-3", 0 },
		{ "/data/var/run/vsd/+3", 0 },
		{ "/data/var/run/VSD/3", 0 },
		{ "/mnt/data/var/run/vsd/3", 0 },
		{ "data/var/run/vsd/3", 0 },
		// Numbers are words: negative ones are no vsd, longer ones wrap.
		{ "/data/var/run/vsd/2147483647", 2147483647 },
		{ "/data/var/run/vsd/2147483648", 0 },
		{ "/data/var/run/vsd/4294967295", 0 },
		{ "/data/var/run/vsd/4294967296", 0 },
		{ "/data/var/run/vsd/4294967299", 3 },
	};
	for (auto &c : cases) {
		kernel().cwd = c.cwd;
		EXPECT_EQ(current_vsd(), c.vsd) << "'" << c.cwd << "'";
		EXPECT_TRUE(kernel().blocks.empty()) << "the path's buffer is freed";
	}
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Vsd, current__without_a_path_is_none)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().cwd_renders = false;
	EXPECT_EQ(current_vsd(), 0u);
	kernel().cwd_renders = true;
	// One character less and it fits, with its end.
	kernel().cwd = "/data/var/run/vsd/3/" + std::string(4096 - 20, 'x');
	ASSERT_EQ(kernel().cwd.size(), 4096u);
	EXPECT_EQ(current_vsd(), 0u);
	kernel().cwd.pop_back();
	EXPECT_EQ(current_vsd(), 3u);
	EXPECT_EQ(kernel().text(), "");
}

TEST_F(Vsd, current__without_memory_for_the_path)
{
	kernel().cwd = "/data/var/run/vsd/3";
	kernel().fail(Fail::kKmalloc);
	EXPECT_EQ(current_vsd(), 0u);
	ASSERT_EQ(kernel().log.size(), 1u);
	EXPECT_EQ(kernel().log[0].level, 0);
	EXPECT_EQ(kernel().log[0].text, "Failed to kmalloc buf.\n");
	EXPECT_EQ(current_vsd(), 3u);
}

TEST_F(Vsd, getcwd__moves_the_path_to_the_buffers_start)
{
	for (size_t size : { 1, 2, 100, 2048, 4095 }) {
		std::string path = "/" + std::string(size - 1, 'y');
		kernel().cwd = path;
		std::vector<char> buf(4096);
		EXPECT_EQ(simple_getcwd(buf.data()), 0);
		EXPECT_STREQ(buf.data(), path.c_str());
	}
}

// Callers look for a negative answer, which never comes.
TEST_F(Vsd, getcwd__without_a_path_answers_0_and_an_empty_text)
{
	std::vector<char> buf(4096, 'z');
	kernel().cwd_renders = false;
	EXPECT_EQ(simple_getcwd(buf.data()), 0);
	EXPECT_STREQ(buf.data(), "");
	kernel().cwd_renders = true;
	kernel().cwd = std::string(4096, '/');
	buf.assign(4096, 'z');
	EXPECT_EQ(simple_getcwd(buf.data()), 0);
	EXPECT_STREQ(buf.data(), "");
}

} // namespace
