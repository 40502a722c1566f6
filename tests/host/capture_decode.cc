// SPDX-License-Identifier: GPL-2.0-only
#include "capture_decode.h"

#include <algorithm>

#include <gtest/gtest.h>

namespace capture {

namespace {

// A row of a table of attributes: name, number, and kind as the table spells it.
struct Row {
	const char *name;
	int number;
	std::string kind;
};

#define CAPTURE_ROW(name, number, kind, ...) { #name, number, #kind },
#define CAPTURE_SET(set) { #set, { MOX_CAPTURE_##set##_TABLE(CAPTURE_ROW) } },
const std::map<std::string, std::vector<Row>> kSets = {
	CAPTURE_SET(INFO) CAPTURE_SET(LOCATION) CAPTURE_SET(COUNTERS) CAPTURE_SET(SOCKET)
		CAPTURE_SET(RULE) CAPTURE_SET(VALUE) CAPTURE_SET(QUEUE) CAPTURE_SET(MEMORY)
			CAPTURE_SET(THREAD) CAPTURE_SET(TRACE)
};

// The set that each command answers with.
#define CAPTURE_COMMAND(name, number, how, reply, ...) { number, #reply },
const std::map<int, std::string> kReplies = { MOX_CAPTURE_CMD_TABLE(CAPTURE_COMMAND) };

// Bytes of a kind that has a size.
const std::map<std::string, size_t> kSizes = { { "U8", 1 },  { "U16", 2 }, { "U32", 4 },
					       { "S32", 4 }, { "U64", 8 }, { "FLAG", 0 } };

// What may come several times in a message; everything else comes once.
bool may_repeat(const std::string &set, int number)
{
	return (set == "INFO" && number == MOX_CAPTURE_INFO_FEATURE) ||
	       (set == "RULE" && number == MOX_CAPTURE_RULE_VALUE) ||
	       (set == "THREAD" && number == MOX_CAPTURE_THREAD_PENDING);
}

constexpr size_t kHeaders = 20;
constexpr uint16_t kNested = 0x8000;

template <typename T> T read(const Bytes &bytes, size_t at)
{
	T value{};
	std::memcpy(&value, bytes.data() + at, sizeof(value));
	return value;
}

} // namespace

class Decoder {
public:
	// The attributes in bytes [at, end).
	static void attributes(const Bytes &bytes, size_t at, size_t end, const std::string &set,
			       Attributes *into)
	{
		while (at < end) {
			if (end - at < 4) {
				ADD_FAILURE() << set << ": " << end - at << " bytes left";
				return;
			}
			const auto length = read<uint16_t>(bytes, at);
			const auto type = read<uint16_t>(bytes, at + 2);
			const size_t step = (length + 3u) & ~3u;
			if (length < 4 || step > end - at) {
				ADD_FAILURE() << set << ": attribute " << type << " of " << length
					      << " bytes, " << end - at << " left";
				return;
			}
			for (size_t pad = at + length; pad < at + step; pad++)
				EXPECT_EQ(bytes[pad], 0) << set << ": padding of " << type;
			one(bytes, at + 4, at + length, type, set, into);
			at += step;
		}
	}

private:
	static void one(const Bytes &bytes, size_t at, size_t end, uint16_t type,
			const std::string &set, Attributes *into)
	{
		const int number = type & ~kNested;
		const Row *row = nullptr;
		for (const Row &candidate : kSets.at(set))
			if (candidate.number == number)
				row = &candidate;
		if (!row) {
			ADD_FAILURE() << set << " has no attribute " << number;
			return;
		}
		SCOPED_TRACE(set + " " + row->name);
		if (into->has(number) && !may_repeat(set, number))
			ADD_FAILURE() << "comes twice";
		Bytes payload(bytes.begin() + at, bytes.begin() + end);
		const bool nest = row->kind.rfind("NEST_", 0) == 0;
		EXPECT_EQ((type & kNested) != 0, nest) << "the nested bit";
		if (nest) {
			Attributes inner;
			attributes(bytes, at, end, row->kind.substr(5), &inner);
			into->nests_[number].push_back(inner);
		} else if (auto size = kSizes.find(row->kind); size != kSizes.end()) {
			EXPECT_EQ(payload.size(), size->second);
		} else if (row->kind == "STRING") {
			EXPECT_FALSE(payload.empty());
			EXPECT_EQ(payload.empty() ? 1 : payload.back(), 0);
			EXPECT_EQ(std::count(payload.begin(), payload.end(), 0), 1);
		} else {
			EXPECT_EQ(row->kind, "BINARY");
			EXPECT_FALSE(payload.empty());
		}
		into->found_[number].push_back(payload);
	}
};

size_t Attributes::count(int number) const
{
	auto it = found_.find(number);
	return it == found_.end() ? 0 : it->second.size();
}

const Bytes &Attributes::bytes(int number) const
{
	static const Bytes kNone;
	auto it = found_.find(number);
	if (it != found_.end())
		return it->second.front();
	ADD_FAILURE() << "attribute " << number << " is absent";
	return kNone;
}

std::string Attributes::text(int number) const
{
	const Bytes &payload = bytes(number);
	return { payload.begin(), payload.end() - !payload.empty() };
}

std::vector<std::string> Attributes::texts(int number) const
{
	std::vector<std::string> all;
	if (has(number))
		for (const Bytes &payload : found_.at(number))
			all.emplace_back(payload.begin(), payload.end() - !payload.empty());
	return all;
}

std::vector<uint32_t> Attributes::numbers(int number) const
{
	std::vector<uint32_t> all;
	if (has(number))
		for (const Bytes &payload : found_.at(number))
			if (payload.size() == 4)
				all.push_back(read<uint32_t>(payload, 0));
	return all;
}

const Attributes &Attributes::nest(int number) const
{
	static const Attributes kNone;
	if (nests(number).empty()) {
		ADD_FAILURE() << "nested attribute " << number << " is absent";
		return kNone;
	}
	return nests(number).front();
}

const std::vector<Attributes> &Attributes::nests(int number) const
{
	static const std::vector<Attributes> kNone;
	auto it = nests_.find(number);
	return it == nests_.end() ? kNone : it->second;
}

std::vector<Message> decode(const Bytes &bytes)
{
	std::vector<Message> all;
	for (size_t at = 0; at < bytes.size();) {
		const uint32_t length = bytes.size() - at < kHeaders ? 0
								     : read<uint32_t>(bytes, at);
		if (length < kHeaders || length % 4 || length > bytes.size() - at) {
			ADD_FAILURE() << "a message of " << length << " bytes, "
				      << bytes.size() - at << " left";
			return all;
		}
		Message m;
		m.size = length;
		m.flags = read<uint16_t>(bytes, at + 6);
		m.sequence = read<uint32_t>(bytes, at + 8);
		m.client = read<uint32_t>(bytes, at + 12);
		m.command = bytes[at + 16];
		EXPECT_EQ(bytes[at + 17], MOX_CAPTURE_VERSION) << "version";
		auto reply = kReplies.find(m.command);
		if (reply == kReplies.end() || !kSets.count(reply->second))
			ADD_FAILURE() << "an answer to command " << int{ m.command };
		else
			Decoder::attributes(bytes, at + kHeaders, at + length, reply->second, &m);
		all.push_back(std::move(m));
		at += length;
	}
	return all;
}

} // namespace capture
