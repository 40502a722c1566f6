// SPDX-License-Identifier: GPL-2.0-only
#include "kcov.h"

#include <algorithm>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace fuzz {

namespace {

// As in the kernel's interface, whose header this toolchain may not have.
constexpr unsigned long kInitTrace = _IOR('c', 1, unsigned long);
constexpr unsigned long kEnable = _IO('c', 100), kDisable = _IO('c', 101);
constexpr unsigned long kTracePc = 0;

} // namespace

Kcov::Kcov() : fd_(::open("/sys/kernel/debug/kcov", O_RDWR | O_CLOEXEC))
{
	if (fd_ < 0)
		return;
	const size_t size = kPlaces * sizeof *places_;
	if (::ioctl(fd_, kInitTrace, kPlaces))
		return;
	void *area = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
	if (area == MAP_FAILED || ::ioctl(fd_, kEnable, kTracePc))
		return;
	places_ = static_cast<unsigned long *>(area);
}

Kcov::~Kcov()
{
	if (places_) {
		::ioctl(fd_, kDisable, 0);
		::munmap(places_, kPlaces * sizeof *places_);
	}
	if (fd_ >= 0)
		::close(fd_);
}

void Kcov::begin()
{
	if (on())
		__atomic_store_n(places_, 0, __ATOMIC_RELAXED);
}

size_t Kcov::end()
{
	if (!on())
		return 0;
	const size_t count = std::min<size_t>(__atomic_load_n(places_, __ATOMIC_RELAXED),
					      kPlaces - 1);
	size_t fresh = 0;
	uint32_t before = 0;
	for (size_t i = 1; i <= count; ++i) {
		const uint32_t here = uint32_t(places_[i]) * 2654435761u;
		const size_t step = (here ^ before) >> (32 - 18);
		before = here >> 1;
		if (!steps_[step]) {
			steps_[step] = true;
			++fresh;
		}
	}
	seen_ += fresh;
	return fresh;
}

} // namespace fuzz
