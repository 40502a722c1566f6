// SPDX-License-Identifier: GPL-2.0-only
// A socket whose rule records are watched, and the 20 types of a record.
#pragma once

#include "socket_fixture.h"

struct TypeTraits {
	explicit TypeTraits(u16 type)
		: type(type), stride(contract::width(type)), valued(stride),
		  line(contract::edited_line(type))
	{
	}

	u16 type, stride;
	bool valued;
	std::string line;
};

inline const std::vector<TypeTraits> kTypes = [] {
	std::vector<TypeTraits> all;
	for (u16 type = 0; type < contract::kTypes; type++)
		all.emplace_back(type);
	return all;
}();

// count elements of distinct bytes, none of them zero.
inline Bytes elements(size_t count, size_t stride)
{
	Bytes b(count * stride);
	for (size_t i = 0; i < b.size(); i++)
		b[i] = static_cast<u8>(i + 1);
	return b;
}

inline std::vector<oracle::Value> values(const Bytes &bytes, size_t stride)
{
	std::vector<oracle::Value> out;
	for (size_t at = 0; at + stride <= bytes.size(); at += stride)
		out.push_back(value_of(Bytes(bytes.begin() + at, bytes.begin() + at + stride)));
	return out;
}

class RuleRecordTest : public CreatedSocketTest {
protected:
	void TearDown() override
	{
		kernel().cwd = "/root";
		CreatedSocketTest::TearDown();
	}
	// In the layer-2 library with one datum.
	void run()
	{
		ASSERT_EQ(s.add(PACKET_SRC_MAC_EQUAL, 1, Bytes(6, 0x22)), 0);
		ASSERT_EQ(s.set(PACKET_TREATMENT, PACKET_COPY), 0);
		ASSERT_EQ(s.set(PACKET_LOCATION, PACKET_LEV2_LOC), 0);
		lines();
	}
	// The lines that the option itself prints; the library's own are left out.
	Strings own_lines()
	{
		Strings out;
		for (const std::string &line : lines())
			if (line.find("FILTER-LIST") == std::string::npos)
				out.push_back(line);
		return out;
	}
	int raw(int option, const Bytes &record, int len = -1, size_t fault_at = SIZE_MAX)
	{
		return s.setsockopt(option, record, MOX_SOL_PACKET, len, fault_at);
	}
};
