/* SPDX-License-Identifier: MIT */
/*
 * The interfaces of the system as packet sockets report them: hardware type and address by index.
 */
#ifndef MOX_RELAY_INTERFACES_H
#define MOX_RELAY_INTERFACES_H

#include "mox/values.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace relay {

/** Most interfaces that are looked at; frames of others have no hardware address of their own. */
inline constexpr std::size_t kMaxInterfaces = 256;

struct Interface {
	std::uint32_t index;
	std::uint16_t hardware; /**< ARPHRD_* */
	mox::MacAddress mac;
	bool has_mac;
};

/** Where the list comes from; tests replace it. */
class InterfaceSource {
public:
	virtual ~InterfaceSource() = default;
	virtual std::vector<Interface> list();
};

class Interfaces {
public:
	explicit Interfaces(InterfaceSource &source) : source_(source) {}

	/** The interface with this index, null when there is none. Valid until the next call. now: seconds, any origin. */
	const Interface *find(std::uint32_t index, std::int64_t now);
	/** Whether the address is that of an interface. */
	bool is_own(const std::uint8_t *mac, std::int64_t now);
	/** The list is read again by the next call, whatever its age. */
	void forget() { age_known_ = false; }

private:
	void refresh(std::int64_t now);

	InterfaceSource &source_;
	std::vector<Interface> list_;
	bool age_known_ = false;
	std::int64_t read_at_ = 0;
};

} // namespace relay

#endif
