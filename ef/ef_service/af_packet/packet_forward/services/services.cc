// SPDX-License-Identifier: GPL-2.0-only
#include "services/services.hpp"

#include "base/log.hpp"
#include "base/sync.hpp"

extern "C" {
constinit mox_packet_local_mac_func mox_packet_get_local = nullptr;
constinit pkt_rnfp_func pkt_rnfp = nullptr;
constinit pkt_rnfp_func pkt_rnfp_wlan = nullptr;
constinit packet_cpp_ioctl_func mox_packet_cpp_ioctl_func = nullptr;
constinit u8 mox_packet_serv_inited = 0;
}

namespace mox {
namespace {

/** A service that the module follows, and where its entry point goes. */
struct Followed {
	platform::service which;
	void (*set)(void *entry);
};

template <auto *pointer> void set_pointer(void *entry)
{
	using Func = decltype(+*pointer);
	store(*pointer, reinterpret_cast<Func>(entry));
}

/* In the order in which they are looked up at start. */
constexpr Followed kFollowed[] = {
	{ platform::kLocalMacService, set_pointer<&mox_packet_get_local> },
	{ platform::kDropService, set_pointer<&pkt_rnfp> },
	{ platform::kWlanDropService, set_pointer<&pkt_rnfp_wlan> },
};

void forget_services()
{
	for (const Followed &followed : kFollowed)
		followed.set(nullptr);
}

} // namespace
} // namespace mox

using namespace mox;

extern "C" {

int mox_packet_serv_init(void)
{
	if (mox_packet_serv_inited) {
		/* Only printed here: the line shows an operator that the unit was up already. */
		MOX_DEBUG("SERV INIT OK!\n");
		return 0;
	}
	for (const Followed &followed : kFollowed)
		followed.set(
			efmp_get_service(followed.which.service_class, followed.which.instance));
	if (efmp_reg_serv_change_handler(mox_packet_on_service_change)) {
		mox_printk("Reg serv change handler error\n");
		forget_services();
		return -1;
	}
	mox_packet_serv_inited = 1;
	return 0;
}

void mox_packet_serv_deinit(void)
{
	if (!mox_packet_serv_inited)
		return;
	efmp_unreg_serv_change_handler(mox_packet_on_service_change);
	forget_services();
	mox_packet_serv_inited = 0;
}

void mox_packet_on_service_change(u32 event, void *service_record)
{
	if (event != platform::kServiceAvailable && event != platform::kServiceWithdrawn)
		return;
	const auto *record = static_cast<const platform::service_record *>(service_record);
	for (const Followed &followed : kFollowed) {
		if (record->service_class != followed.which.service_class ||
		    record->instance != followed.which.instance)
			continue;
		/*
		 * A withdrawal counts whatever entry point it names: the
		 * platform announces the end of the service, not of one
		 * implementation, and a replacement is announced anew.
		 */
		followed.set(event == platform::kServiceAvailable ? record->entry : nullptr);
	}
}

int packet_reg_cpp_ioctl(packet_cpp_ioctl_func handler)
{
	if (load(mox_packet_cpp_ioctl_func)) {
		MOX_DEBUG("mox_packet_cpp_ioctl_func had register\n");
		return -1;
	}
	/* Null is accepted, too, and leaves the slot free. */
	store(mox_packet_cpp_ioctl_func, handler);
	return 0;
}

int packet_unreg_cpp_ioctl(packet_cpp_ioctl_func handler)
{
	packet_cpp_ioctl_func installed = load(mox_packet_cpp_ioctl_func);

	if (installed && installed == handler) {
		store(mox_packet_cpp_ioctl_func, packet_cpp_ioctl_func{ nullptr });
		return 0;
	}
	if (installed)
		MOX_DEBUG("mox_packet_cpp_ioctl_func is not func to be register\n");
	else
		MOX_DEBUG("mox_packet_cpp_ioctl_func had not register\n");
	return -1;
}
} // extern "C"
