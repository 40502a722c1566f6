// SPDX-License-Identifier: GPL-2.0-only
// A kernel that loads signed modules alone: this one signed, and as a device refuses it.
#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

#include <sys/syscall.h>
#include <unistd.h>

#include "support/fixture.h"
#include "support/module.h"

namespace {

using namespace vm;

constexpr const char *kModule = "mox_ef_socket";
constexpr const char kMagic[] = "~Module signature appended~\n"; // the kernel's, at the file's end
constexpr std::size_t kMagicLength = sizeof(kMagic) - 1;
constexpr std::size_t kRecordLength = 12; // before it; its last 4 bytes are the signature's length

class Signature : public VmTest {
protected:
	void SetUp() override
	{
		VmTest::SetUp();
		std::ifstream enforce("/sys/module/module/parameters/sig_enforce");
		char answer = 'N';
		enforce >> answer;
		if (answer != 'Y')
			GTEST_SKIP()
				<< "this kernel loads unsigned modules; the variant signed does not";
		compare_records_ = false; // a module loaded anew starts its counters at 0
		std::ifstream file(module_file(kModule), std::ios::binary);
		image_.assign(std::istreambuf_iterator<char>(file), {});
	}
	void TearDown() override
	{
		if (!module_present(kModule)) {
			EXPECT_EQ(load_module(kModule), 0);
		}
		VmTest::TearDown();
	}
	/** The file's bytes before its signature; the whole file if it has none. */
	std::size_t unsigned_length() const
	{
		std::size_t tail = kMagicLength + kRecordLength;
		if (image_.size() < tail ||
		    image_.compare(image_.size() - kMagicLength, kMagicLength, kMagic) != 0)
			return image_.size();
		std::size_t length = 0;
		for (std::size_t i = image_.size() - kMagicLength - 4;
		     i < image_.size() - kMagicLength; ++i)
			length = length << 8 | static_cast<unsigned char>(image_[i]);
		return length + tail <= image_.size() ? image_.size() - tail - length
						      : image_.size();
	}
	static int load(const std::string &image)
	{
		return ::syscall(SYS_init_module, image.data(), image.size(), "") ? errno : 0;
	}
	std::string image_;
};

TEST_F(Signature, the_signed_module_loads)
{
	ASSERT_LT(unsigned_length(), image_.size());
	ASSERT_EQ(unload_module(kModule), 0);
	EXPECT_EQ(load(image_), 0);
}

TEST_F(Signature, without_it_the_kernel_refuses)
{
	ASSERT_LT(unsigned_length(), image_.size());
	ASSERT_EQ(unload_module(kModule), 0);
	int error = load(image_.substr(0, unsigned_length()));
	EXPECT_TRUE(error == EKEYREJECTED || error == ENOKEY) << error; // ENOKEY before 5.4
}

TEST_F(Signature, a_changed_byte_is_refused)
{
	ASSERT_LT(unsigned_length(), image_.size());
	ASSERT_EQ(unload_module(kModule), 0);
	std::string changed = image_;
	changed[unsigned_length() / 2] ^= 1;
	EXPECT_EQ(load(changed), EKEYREJECTED);
}

} // namespace
