// SPDX-License-Identifier: GPL-2.0
// Options of a socket with any value, length and reach of user memory, rule records above all.
#include "fixture_case.h"
#include "module_fixture.h"

void fuzz_case(fuzz::Input input)
{
	fuzz::Case<ModuleTest>::run([&](ModuleTest &) {
		const int options[] = { MOX_PACKET_ADD_RULE, MOX_PACKET_ADD_RULE,
					MOX_PACKET_DEL_RULE, PACKET_LOCATION, PACKET_TREATMENT };
		Sock s;
		if (s.create(input.below(2) ? kRaw : kDgram) != 0)
			return;
		// Each call takes memory of the process; a few show what one leaves to the next.
		for (int calls = 0; calls < 16 && !input.empty(); calls++) {
			const u8 what = input.byte();
			const int option = what < 224 ? options[what % std::size(options)]
						      : input.number<u16>();
			// Lengths beside the value's own: below it, above it, and negative ones.
			const u8 how = input.byte();
			const Bytes value = input.bytes(input.byte());
			int length = static_cast<int>(value.size());
			if (how < 64)
				length = static_cast<int16_t>(input.number<u16>());
			// Memory ends with the value, or before.
			const size_t reach = how % 8 == 7 ? input.byte() : value.size();
			const int level = how == 255 ? input.byte() : MOX_SOL_PACKET;
			fake::UserBuf user(value);
			user.fault_at = std::min(reach, value.size());
			user.span = SIZE_MAX / 4;
			seam_uptr at{ &user };
			mox_packet_setsockopt(&s.socket, level, option, &at,
					      static_cast<u32>(length));
		}
		verify_all();
	});
}
