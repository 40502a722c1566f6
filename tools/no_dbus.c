// SPDX-License-Identifier: GPL-2.0-only
/*
 * Only for static programs. The distribution's libpcap.a can also capture from the D-Bus and then needs libdbus and
 * libsystemd, which have no static build. The tools write and read files with libpcap and capture nothing through it:
 * these two stand in front of libpcap's own and say that there is no D-Bus here, so that the linker leaves those alone.
 */
struct pcap;
struct pcap_if_list;

struct pcap *dbus_create(const char *device, char *error, int *is_ours);
int dbus_findalldevs(struct pcap_if_list *devices, char *error);

struct pcap *dbus_create(const char *device, char *error, int *is_ours)
{
	(void)device;
	(void)error;
	*is_ours = 0;
	return 0;
}

int dbus_findalldevs(struct pcap_if_list *devices, char *error)
{
	(void)devices;
	(void)error;
	return 0;
}
