// SPDX-License-Identifier: GPL-2.0-only
// The platform's services: published, withdrawn, followed.
#include "efmp.h"
#include "kernel.h"
#include "platform.h"

using fake::breach;
using fake::efmp;
using fake::Fail;
using fake::kernel;

namespace fake {

void Efmp::publish(uint32_t service_class, uint32_t instance, void *entry)
{
	services[{ service_class, instance }] = entry;
	announce(platform::kServiceAvailable, service_class, instance, entry);
}

void Efmp::withdraw(uint32_t service_class, uint32_t instance)
{
	void *entry = services[{ service_class, instance }];
	services.erase({ service_class, instance });
	announce(platform::kServiceWithdrawn, service_class, instance, entry);
}

void Efmp::announce(uint32_t event, uint32_t service_class, uint32_t instance, void *entry)
{
	platform::service_record record{ entry, service_class, instance };
	if (change_handler)
		change_handler(event, &record);
}

} // namespace fake

void *efmp_get_service(u32 service_class, u32 instance)
{
	kernel().may_sleep("get_service");
	efmp().service_calls.push_back("get " + std::to_string(service_class) + " " +
				       std::to_string(instance));
	auto it = efmp().services.find({ service_class, instance });
	return it == efmp().services.end() ? nullptr : it->second;
}

int efmp_reg_serv_change_handler(efmp_serv_change_func handler)
{
	kernel().may_sleep("reg_serv");
	efmp().service_calls.push_back("reg");
	if (kernel().failing(Fail::kRegServ))
		return kernel().error_of(Fail::kRegServ, -5);
	if (efmp().change_handler)
		breach("a second change handler");
	efmp().change_handler = handler;
	return 0;
}

int efmp_unreg_serv_change_handler(efmp_serv_change_func handler)
{
	kernel().may_sleep("unreg_serv");
	efmp().service_calls.push_back("unreg");
	if (efmp().change_handler != handler)
		breach("a change handler unregistered that is not registered");
	efmp().change_handler = nullptr;
	return 0;
}
