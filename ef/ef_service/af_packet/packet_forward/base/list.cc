// SPDX-License-Identifier: GPL-2.0-only
#include "base/list.hpp"

extern "C" {

void mox_packet_list_del_safe(list_head *link)
{
	mox::list_unlink(link);
	seam_smp_mb();
}

void mox_packet_list_add_tail_safe(list_head *link, list_head *head)
{
	mox_packet_list_ins_head_safe(link, head->prev);
}

void mox_packet_list_ins_head_safe(list_head *link, list_head *head)
{
	link->next = head->next;
	link->prev = head;
	head->next->prev = link;
	head->next = link;
	seam_smp_mb();
}
} // extern "C"
