// SPDX-License-Identifier: GPL-2.0-only
// The family "mox_capture", read by hand, and the sums that its ledgers must add up to.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "mox_capture.h"
#include "support/genl.h"

namespace vm {

/// Attributes of one message or nest; of several with one type all, in their order.
class CaptureAttributes {
public:
	explicit CaptureAttributes(const Bytes &bytes, size_t from = 0);

	bool has(int type) const { return values_.count(uint16_t(type)) != 0; }
	/// A number of 1 to 8 bytes; 0 when it is absent.
	uint64_t number(int type) const;
	std::string text(int type) const;
	std::vector<Bytes> all(int type) const;
	CaptureAttributes nest(int type) const { return CaptureAttributes(all(type).at(0)); }

private:
	std::multimap<uint16_t, Bytes> values_;
};

struct CaptureReply {
	std::vector<CaptureAttributes> messages;
	int error = 0;            ///< negative errno of the request or the dump
	bool interrupted = false; ///< a message said that something has changed
	std::string explanation;  ///< the kernel's text with an error
	size_t datagrams = 0;
};

/// Requests a command of the family, and reads all answers.
CaptureReply capture_request(mox_capture_cmd command, const Bytes &attributes = {},
			     GenlSocket *socket = nullptr);
bool is_dump(mox_capture_cmd command);

/// One attribute of a request, padded.
Bytes capture_attribute(mox_capture_request_attr type, const Bytes &payload);
Bytes capture_number(mox_capture_request_attr type, uint64_t value, size_t size);

/// A word of the sums of a location.
uint64_t location_word(uint32_t location, mox_capture_location_attr word);

/// Checks all ledgers, at rest: each line of the header that says what adds up.
void audit_ledgers();

} // namespace vm
