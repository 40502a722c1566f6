/* SPDX-License-Identifier: GPL-2.0-only */
/*
 * The seam of the operators' side: the generic netlink family, the dump file,
 * and text. Rules as in seam.h.
 */
#ifndef SEAM_CONTROL_H
#define SEAM_CONTROL_H

#include "seam.h"

#ifdef __cplusplus
extern "C" {
#endif

struct file;
struct genl_info;

/* ---- text ------------------------------------------------------------------ */

/** Format into buf (size bytes, NUL included); returns the characters that stand there. Any. */
int seam_scnprintf(char *buf, size_t size, const char *fmt, ...)
	__attribute__((format(printf, 3, 4)));

/* ---- the generic netlink family --------------------------------------------- */

/** genl_register_family(&mox_packet_genl_family): 0 or a negative errno. Process. */
int seam_genl_register(void);
/** Unregister; returns when no request is being handled any more. Process. */
void seam_genl_unregister(void);
/** The request: its netlink header and as many bytes as nlmsg_len says. */
const void *seam_genl_message(const struct genl_info *info);
/**
 * Whether CAP_NET_ADMIN is held by the sending process as well as by whoever opened the socket:
 * that may be another one, which hands the socket to a privileged program to write to. Process.
 */
int seam_genl_from_admin(const struct sk_buff *request);
/** The port of the socket that sent the request. */
u32 seam_genl_client(const struct genl_info *info);

/** A buffer for a netlink message of 20 bytes behind its header, or null. Process. */
struct sk_buff *seam_genl_alloc(void);
/** Begin a message of the family, command 0, to a port; null without room. */
void *seam_genl_put(struct sk_buff *skb, u32 client);
/** Add an attribute without payload: 0 or a negative errno. */
int seam_genl_put_empty(struct sk_buff *skb, int type);
/** Write the length of the message that seam_genl_put began. */
void seam_genl_end(struct sk_buff *skb, void *message);
/** Send within the initial namespace, not waiting; takes the buffer. Negative: not sent. Process. */
int seam_genl_unicast(struct sk_buff *skb, u32 client);
void seam_genl_free(struct sk_buff *skb);

/* ---- files ------------------------------------------------------------------- */

/**
 * Open for reading and writing, as it is, or created (mode 0). Never waits for
 * a FIFO's reader or for the holder of a lease, and follows no symbolic link at
 * the path's end. Null when refused. Process.
 */
struct file *seam_file_open(const char *path);
int seam_file_is_regular(const struct file *file);
/** Names that the file has; 0 once the name that it was opened by is gone. Process. */
u32 seam_file_links(const struct file *file);
/** Whether the file has no content. */
int seam_file_empty(const struct file *file);
/** Remove the content: 0 or a negative errno. Process. */
int seam_file_truncate(struct file *file);
/** Write at the file's position and advance it; bytes written or a negative errno. Process. */
long seam_file_write(struct file *file, const void *from, size_t len);
void seam_file_close(struct file *file);

/* ---- what the kernel calls in the C++ units ------------------------------------ */

int mox_packet_msg_recv(struct sk_buff *skb, struct genl_info *info);

#ifdef __cplusplus
} /* extern "C" */
#endif
#endif
