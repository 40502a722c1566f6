/* SPDX-License-Identifier: GPL-2.0-only */
/* The attributes of one message of the family "mox_capture", taken apart by the tables of the header. */
#ifndef MOXCTL_CAPTURE_RECORD_H
#define MOXCTL_CAPTURE_RECORD_H

#include "capture_sets.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace moxctl {

/** Attributes by their numbers. What a message does not have reads as 0, as empty, as absent. */
class Record {
public:
	struct Text {
		std::uint8_t number;
		std::string bytes;
	};
	struct Nest;

	explicit Record(Set set = Set::kNone);

	Set set() const { return set_; }
	bool has(unsigned number) const { return present_ >> number & 1; }
	/** A number; those with a sign as two's complement of 64 bits. The last one where it was repeated. */
	std::uint64_t number(unsigned number) const { return has(number) ? numbers_[number] : 0; }
	/** Every number that the message has for the attribute, in its order. */
	std::vector<std::uint64_t> numbers(unsigned number) const;
	/** Characters of a string, bytes of a binary. Valid as long as the record. */
	std::string_view text(unsigned number) const;
	/** Every string that the message has for the attribute, in its order. */
	std::vector<std::string_view> texts(unsigned number) const;
	/** The attribute's last nest; null when there is none. */
	const Record *nest(unsigned number) const;
	const std::vector<Nest> &nests() const { return nests_; }

	void set_number(unsigned number, std::uint64_t value);
	void add_text(unsigned number, std::string_view bytes);
	void add_nest(unsigned number, Record nest);
	/** Adds the nests of a message that continues this one. */
	void append_nests(Record &&rest);

private:
	struct Repeated {
		std::uint8_t number;
		std::uint64_t value;
	};

	Set set_;
	std::uint64_t present_ = 0;          /**< a bit for each attribute */
	std::vector<std::uint64_t> numbers_; /**< by attribute number */
	std::vector<Repeated> repeated_;     /**< but the last one of each attribute */
	std::vector<Text> texts_;
	std::vector<Nest> nests_;
};

struct Record::Nest {
	std::uint8_t number;
	Record record;
};

/**
 * Takes attributes apart. Unknown ones are passed over. Throws Failure for one whose length is not that of its kind,
 * for a text without its NUL, and for one that ends beyond the message.
 */
Record decode_record(Set set, std::span<const std::uint8_t> attributes);

} // namespace moxctl

#endif
