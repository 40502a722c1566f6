// SPDX-License-Identifier: GPL-2.0-only
/* setsockopt: the socket's location, treatment, control records and rule data. */
#include "base/errors.hpp"
#include "base/log.hpp"
#include "locations/table.hpp"
#include "rules/budget.hpp"
#include "rules/record.hpp"
#include "rules/types.hpp"
#include "services/services.hpp"
#include "socket/dump.hpp"
#include "socket/rule_change.hpp"
#include "socket/stamps.hpp"

namespace mox {
namespace {

/* The command that handlers of the control hook know, and the bytes that come with it. */
constexpr unsigned int kControlHookCommand = 0x8972;
constexpr u32 kControlHookSize = 40;

/** change_rule under the socket lock. */
template <typename Change> void change_option(mox_packet_sock *po, Change change)
{
	SockGuard guard(sk_of(po));
	change_rule<ChangeLock::kRule>(po, change);
}

/** Read a u32 argument: 0, -EINVAL with the option's own line, or -EFAULT. */
int read_u32(const seam_uptr *value, unsigned int len, const char *len_text, u32 *number)
{
	if (len < sizeof(*number)) {
		MOX_DEBUG("%s", len_text);
		return err::kInval;
	}
	if (seam_copy_from_uptr(number, value, sizeof(*number))) {
		MOX_DEBUG("SETSOCKOPT: copy from user failed\n");
		return err::kFault;
	}
	return 0;
}

int set_treatment(mox_packet_sock *po, const seam_uptr *value, unsigned int len)
{
	u32 treatment;
	int error = read_u32(value, len, "SETSOCKOPT: PACKET_TREATMENT len error.\n", &treatment);
	if (error)
		return error;
	if (treatment > kHighestTreatment) {
		MOX_DEBUG("SETSOCKOPT: PACKET_TREATMENT type illegal.\n");
		return err::kInval;
	}
	change_option(po, [po, treatment](seam_spinlock *lock) {
		SpinGuard guard(lock);
		store(po->regular.treatment, treatment);
		/* Also at location 0: the socket counts as running from here on. */
		return ReEnter::kAlways;
	});
	MOX_DEBUG("SETSOCKOPT: process: %s\n", treatment_name(treatment));
	return 0;
}

int set_ctrl_info(mox_packet_sock *po, const seam_uptr *value, unsigned int len)
{
	u32 wanted;
	int error = read_u32(value, len, "SETSOCKOPT: PACKET_CTRL_INFO len error\n", &wanted);
	if (error)
		return error;
	if (wanted)
		po_set_flag(po, PO_CTRL_INFO);
	else
		po_clear_flag(po, PO_CTRL_INFO);
	MOX_DEBUG("SETSOCKOPT: PACKET_CTRL_INFO %s\n", wanted ? "require" : "unrequire");
	return 0;
}

int set_location(mox_packet_sock *po, const seam_uptr *value, unsigned int len)
{
	u32 location;
	int error = read_u32(value, len, "SETSOCKOPT: PACKET_LOCATION len error\n", &location);
	if (error)
		return error;
	/* No other number is refused: one without a library parks the rule. */
	if (location == PACKET_MPLS_LOC || location == PACKET_TRILL_LOC) {
		MOX_DEBUG("SETSOCKOPT: PACKET_LOCATION location type %d error\n",
			  static_cast<int>(location));
		return err::kInval;
	}
	change_option(po, [po, location](seam_spinlock *lock) {
		SpinGuard guard(lock);
		store(po->regular.location, location);
		return ReEnter::kWithLocation;
	});
	MOX_DEBUG("SETSOCKOPT: PACKET_LOCATION %s\n", location_name(location));
	return 0;
}

int change_rule_data(mox_packet_sock *po, const seam_uptr *value, unsigned int len, bool add)
{
	RuleRecord record;
	int error = record.read(value, len);
	if (error)
		return error;
	SockGuard guard(sk_of(po));
	if (add) {
		/* Before the rule is withdrawn: a refusal leaves it where it is. */
		error = record.charge(po);
		if (error)
			return error;
	}
	int result = 0;
	change_rule<ChangeLock::kRule>(po, [&](seam_spinlock *lock) {
		result = record.apply(po, lock, add);
		/* Any other error leaves the socket out of the libraries until its next rule change. */
		return result == 0 || result == err::kInval ? ReEnter::kWithLocation
							    : ReEnter::kNever;
	});
	/* Less than charged was added when values were there already, or memory was not. */
	budget_settle(po);
	return result;
}

/** Pass the argument to the handler that another component has installed, if any. Its result. */
int control_hook(const seam_uptr *value, unsigned int len)
{
	packet_cpp_ioctl_func handler = load(mox_packet_cpp_ioctl_func);

	/* Tested first: without a handler even an argument that is too long is no error. */
	if (!handler)
		return 0;
	/* Aligned, because handlers read records from it. */
	alignas(8) u8 buffer[kControlHookSize]{};
	if (len > sizeof(buffer))
		return err::kInval;
	if (seam_copy_from_uptr(buffer, value, len))
		return err::kFault;
	return handler(kControlHookCommand, buffer);
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" int mox_packet_setsockopt(struct socket *socket, int level, int option,
				     const seam_uptr *value, unsigned int len)
{
	if (level != MOX_SOL_PACKET) {
		MOX_DEBUG("PACKET-SETSOCKOPT: level is not SOL_PACKET!\n");
		return err::kNoProtoOpt;
	}
	mox_packet_sock *po = po_of(seam_socket_sk(socket));
	stamps_look(po);
	switch (option) {
	case MOX_PACKET_ADD_RULE:
		return change_rule_data(po, value, len, true);
	case MOX_PACKET_DEL_RULE:
		return change_rule_data(po, value, len, false);
	case PACKET_TREATMENT:
		return set_treatment(po, value, len);
	case PACKET_CTRL_INFO:
		return set_ctrl_info(po, value, len);
	case PACKET_LOCATION:
		return set_location(po, value, len);
	case MOX_PACKET_DUMP_SOCKET: {
		/* The report walks the rule, which another thread may be editing. */
		SockGuard guard(sk_of(po));
		mox_packet_sock_dump(po);
		return 0;
	}
	case MOX_PACKET_CONTROL_HOOK:
		return control_hook(value, len);
	/* The kernel's own options that a packet socket of this family does not have. */
	case 1:
	case 2:
	case 8:
	case 9:
	case 13:
	case 14:
		return err::kInval;
	default:
		return err::kNoProtoOpt;
	}
}
