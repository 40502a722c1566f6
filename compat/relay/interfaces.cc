/* SPDX-License-Identifier: MIT */
#include "relay/interfaces.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace relay {

std::vector<Interface> InterfaceSource::list()
{
	std::vector<Interface> found;
	const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return found;
	if (struct if_nameindex *names = if_nameindex()) {
		for (auto *each = names; each->if_index && found.size() < kMaxInterfaces; ++each) {
			ifreq request{};
			std::strncpy(request.ifr_name, each->if_name, sizeof(request.ifr_name) - 1);
			Interface entry{ each->if_index, ARPHRD_ETHER, {}, false };
			if (ioctl(fd, SIOCGIFHWADDR, &request) == 0) {
				entry.hardware = request.ifr_hwaddr.sa_family;
				entry.has_mac = entry.hardware == ARPHRD_ETHER ||
						entry.hardware == ARPHRD_LOOPBACK;
				std::memcpy(entry.mac.data(), request.ifr_hwaddr.sa_data,
					    entry.mac.size());
			}
			found.push_back(entry);
		}
		if_freenameindex(names);
	}
	close(fd);
	return found;
}

// An address may change, and interfaces come and go: the list is as old as a second at most.
void Interfaces::refresh(std::int64_t now)
{
	if (age_known_ && read_at_ == now)
		return;
	list_ = source_.list();
	read_at_ = now;
	age_known_ = true;
}

const Interface *Interfaces::find(std::uint32_t index, std::int64_t now)
{
	refresh(now);
	const auto at = std::find_if(list_.begin(), list_.end(), [index](const Interface &each) {
		return each.index == index;
	});
	return at == list_.end() ? nullptr : &*at;
}

bool Interfaces::is_own(const std::uint8_t *mac, std::int64_t now)
{
	refresh(now);
	return std::any_of(list_.begin(), list_.end(), [mac](const Interface &each) {
		return each.has_mac && each.hardware == ARPHRD_ETHER &&
		       std::equal(each.mac.begin(), each.mac.end(), mac);
	});
}

} // namespace relay
