/*
 * kest.h - the host interface of libkest, a deep-packet-inspection library.
 *
 * A host fills the 43 hook objects below, opens an instance with kest_open()
 * on a directory of plug-in files, calls kest_init() on every thread that will
 * classify, feeds packets with kest_classify(), calls kest_idle() on a timer,
 * and finally calls kest_fini() on each thread and kest_close().
 *
 * Conventions for every call in this header:
 *  - Calls that return int give 0 (or a value) on success and -1 on failure;
 *    calls that return a pointer give NULL on failure.
 *  - After a failure, the thread-local kest_errno holds the first error of the
 *    call, a Linux errno number (the KEST_E* constants below). kest_errno is
 *    cleared at the start of every call that takes a valid handle; it is never
 *    cleared otherwise.
 *  - A handle is an instance number from 1 to 31. A handle outside that range,
 *    or of an instance that is not open, fails with KEST_EINVAL.
 *  - "Thread context" means that the calling thread has gone through
 *    kest_init() for that handle and not yet through kest_fini(). Calls that
 *    need one fail with KEST_EINVAL without it.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KEST_H
#define KEST_H

#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <time.h>

#if defined(KEST_BUILDING_LIBRARY)
#define KEST_EXPORT __attribute__((visibility("default")))
#else
#define KEST_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Types                                                                     */
/* ------------------------------------------------------------------------ */

/** Instance handle, 1 to 31; -1 is a failed kest_open(). */
typedef int kest_handle_t;

/** Opaque connection, made by kest_conn_create() or reported by a plug-in. */
typedef void *kest_conn_t;

/** Connection number, unique within an instance. */
typedef uint64_t kest_conn_id_t;

/** Address family values of kest_endpoint_t.family. */
#define KEST_FAMILY_NONE 0
#define KEST_FAMILY_IPV4 1
#define KEST_FAMILY_IPV6 2

/**
 * One end of a connection. The field order is fixed.
 * family:  KEST_FAMILY_IPV4, KEST_FAMILY_IPV6, or 0 when not set.
 * port:    network byte order.
 * address: network byte order; IPv4 uses the first 4 bytes.
 */
typedef struct kest_endpoint {
  uint8_t family;
  uint16_t port;
  uint8_t address[16];
} kest_endpoint_t;

/**
 * Cursor over the application stack of a connection, handed to the
 * classification callback. Three words, in this fixed order. It may be copied
 * but must not be kept beyond the callback that delivered it.
 */
typedef struct kest_result {
  void *connection; /* the connection reference of this result */
  void *stack;      /* the connection's application stack; also the end position */
  void *current;    /* the position: an entry, or the stack itself at the end */
} kest_result_t;

/**
 * Called by kest_classify() once per result, on the classifying thread.
 * handle: the instance.   result: cursor for the kest_proto_* walking calls.
 * code:   0 to 3.         conn_id: the connection's number.
 * user:   the word given to kest_classify().
 * error:  kest_errno at the moment the plug-in returned.
 * Return 0 to keep the connection, anything else to have it destroyed.
 */
typedef int (*kest_classify_callback_t)(kest_handle_t handle, kest_result_t *result, int code,
                                        kest_conn_id_t conn_id, void *user, int error);

/**
 * Attribute listener, called during kest_classify() (or whatever plug-in code
 * reports the value) on the classifying thread.
 * handle: the instance (kest_handle_get()).
 * conn_id: the number of the connection last handled on this thread.
 * key:    the attribute's identifier on this thread (kest_attr_key_get()).
 * length, value: the attribute's bytes, borrowed for the call. For
 *         "conn.expired" the value is the 8-byte number of the dying
 *         connection. For "flow.risks" it is one flow risk's name (the
 *         README's "Flow risks"), and conn_id is the connection it is
 *         about, also for those raised as a connection ends: they come
 *         before its "conn.expired".
 * packed: argument in the upper 16 bits, the low 16 bits of "more" in the
 *         lower; "more" non-zero means further pieces of the value follow.
 * user:   the user word of the running kest_classify(), or of the last one
 *         during kest_idle().
 * The result is not used.
 */
typedef int (*kest_attr_callback_t)(kest_handle_t handle, kest_conn_id_t conn_id, int key,
                                    int length, const void *value, int packed, void *user);

/* Error numbers left in kest_errno. They are Linux errno values and the same
 * on every system. */
#define KEST_ENOENT 2       /* no such item, module interface or protocol */
#define KEST_ECHILD 10      /* kest_open(): all 31 instance rows are taken */
#define KEST_ENOMEM 12      /* out of memory, or a start-up step failed */
#define KEST_EBUSY 16       /* threads still initialised; state does not allow it */
#define KEST_EEXIST 17      /* duplicate name or rule */
#define KEST_EINVAL 22      /* bad handle or argument, or no thread context */
#define KEST_ENOSYS 38      /* kest_open(): a hook object is null */
#define KEST_EPROTO 71      /* kest_init(): no "TCP" or "UDP" protocol */
#define KEST_EPROTONOSUPPORT 93 /* a connection of a protocol other than 6 or 17 */
#define KEST_ENOBUFS 105    /* kest_conn_create(): the factory made no connection */
#define KEST_ENOTCONN 107   /* kest_classify(): selector 0 without a connection */

/**
 * The first error of the calling thread's current or last call.
 * Thread-local; read it right after a failed call.
 */
extern KEST_EXPORT __thread int kest_errno;

/* ------------------------------------------------------------------------ */
/* Platform hooks                                                            */
/*                                                                           */
/* The library calls no run-time library function for memory, strings, text, */
/* time or logging: it calls these 43 objects, which the host must fill      */
/* before its first kest_open(). They are read at every call, never cached.  */
/* Each has the signature of its standard C namesake. kest_open() checks all */
/* but kest_usleep for presence; one null entry fails it with KEST_ENOSYS.   */
/* Some entries are only called by plug-ins; they must be set all the same.  */
/* ------------------------------------------------------------------------ */

/** Memory for one thread's data; blocks are freed by the thread that took them,
 * except for the few strings kest_close() releases. May return NULL. */
extern KEST_EXPORT void *(*kest_malloc_local)(size_t size);
extern KEST_EXPORT void (*kest_free_local)(void *block);
/** Memory shared between threads; must be safe for concurrent use and a block
 * may be freed by another thread. May return NULL. */
extern KEST_EXPORT void *(*kest_malloc_shared)(size_t size);
extern KEST_EXPORT void (*kest_free_shared)(void *block);
extern KEST_EXPORT int (*kest_islower)(int c);
extern KEST_EXPORT int (*kest_isupper)(int c);
extern KEST_EXPORT int (*kest_tolower)(int c);
extern KEST_EXPORT int (*kest_toupper)(int c);
extern KEST_EXPORT int (*kest_isalnum)(int c);
extern KEST_EXPORT int (*kest_isspace)(int c);
extern KEST_EXPORT int (*kest_isdigit)(int c);
extern KEST_EXPORT int (*kest_atoi)(const char *text);
extern KEST_EXPORT void *(*kest_memcpy)(void *dst, const void *src, size_t n);
extern KEST_EXPORT int (*kest_memcmp)(const void *a, const void *b, size_t n);
extern KEST_EXPORT void *(*kest_memset)(void *dst, int c, size_t n);
extern KEST_EXPORT int (*kest_strcasecmp)(const char *a, const char *b);
extern KEST_EXPORT char *(*kest_strchr)(const char *s, int c);
extern KEST_EXPORT char *(*kest_strrchr)(const char *s, int c);
extern KEST_EXPORT int (*kest_strcmp)(const char *a, const char *b);
extern KEST_EXPORT int (*kest_strncmp)(const char *a, const char *b, size_t n);
extern KEST_EXPORT char *(*kest_strcpy)(char *dst, const char *src);
/** The library always writes the terminating zero itself afterwards. */
extern KEST_EXPORT char *(*kest_strncpy)(char *dst, const char *src, size_t n);
extern KEST_EXPORT char *(*kest_strerror)(int errnum);
extern KEST_EXPORT size_t (*kest_strftime)(char *s, size_t max, const char *format,
                                           const struct tm *tm);
extern KEST_EXPORT size_t (*kest_strlen)(const char *s);
extern KEST_EXPORT char *(*kest_strpbrk)(const char *s, const char *accept);
extern KEST_EXPORT char *(*kest_strstr)(const char *haystack, const char *needle);
extern KEST_EXPORT long (*kest_strtol)(const char *s, char **end, int base);
/** Operator texts that are not logging. */
extern KEST_EXPORT int (*kest_printf)(const char *format, ...);
extern KEST_EXPORT int (*kest_sprintf)(char *buf, const char *format, ...);
extern KEST_EXPORT int (*kest_snprintf)(char *buf, size_t size, const char *format, ...);
extern KEST_EXPORT int (*kest_sscanf)(const char *text, const char *format, ...);
extern KEST_EXPORT int (*kest_putchar)(int c);
extern KEST_EXPORT int (*kest_puts)(const char *s);
/** Diagnostic reports: kest_config_dump() and kest_diag(). */
extern KEST_EXPORT int (*kest_diag_printf)(const char *format, ...);
/** Only tv_sec and tv_usec are read; the zone argument is always NULL. */
extern KEST_EXPORT int (*kest_gettimeofday)(struct timeval *tv, void *tz);
extern KEST_EXPORT time_t (*kest_mktime)(struct tm *tm);
/** The natural logarithm (used for entropy estimates), not logging. */
extern KEST_EXPORT double (*kest_log)(double x);
extern KEST_EXPORT double (*kest_fabs)(double x);
/** Not checked by kest_open(); only oru::delay calls it. */
extern KEST_EXPORT int (*kest_usleep)(unsigned int usec);
extern KEST_EXPORT void (*kest_abort)(void);
/** A number stable for the thread, unique among live threads, never 0. */
extern KEST_EXPORT uint32_t (*kest_get_thread_id)(void);
/** Log output: level "W" or "E", the reporting function's name, a printf
 * format. Formats may or may not end in a newline; add none. */
extern KEST_EXPORT void (*kest_log_message)(const char *level, const char *function,
                                            const char *format, ...);

/* ------------------------------------------------------------------------ */
/* Lifecycle                                                                 */
/* ------------------------------------------------------------------------ */

/**
 * Opens an instance: checks the hooks, claims the lowest free handle, starts
 * every subsystem and loads the plug-in files of plugin_dir.
 *
 * Each .plg file is loaded from an unscrambled copy that is removed right
 * after loading. By default the copy is /tmp/<pid>_<path with every / turned
 * into _>, a name that another local user can predict and plant a file or
 * link at. The environment variable KEST_PLUGIN_COPY, read here once when
 * plugin_dir holds plug-in files, hardens this:
 *   memfd    the copy is an anonymous memory file, loaded through
 *            /proc/self/fd; no file is made in any folder. Without memory
 *            files (or without /proc) "private" is used.
 *   private  the copy (mode 0600, created exclusively, never through a link)
 *            goes into a new folder of mode 0700 under $TMPDIR, or /tmp;
 *            both are removed after loading.
 * Unset or empty keeps the default. Any other value is reported through
 * kest_printf and "private" is used.
 *
 * Any thread. Returns the handle (1 to 31) or -1 with kest_errno:
 *   KEST_ENOSYS  a hook object other than kest_usleep is null;
 *   KEST_ECHILD  31 instances are open;
 *   KEST_ENOMEM  a subsystem failed (unless it left a more precise error).
 * On failure no handle is taken.
 */
KEST_EXPORT kest_handle_t kest_open(const char *plugin_dir);

/**
 * Closes an instance: unloads its plug-ins and frees its tables. Every thread
 * must have called kest_fini() first; no thread may be inside another call on
 * the instance. Any thread. Returns 0, or -1 with kest_errno:
 *   KEST_EINVAL  bad handle;
 *   KEST_EBUSY   threads are still initialised (the instance stays intact).
 */
KEST_EXPORT int kest_close(kest_handle_t handle);

/**
 * Gives the calling thread a context in the instance and starts the per-thread
 * state of every subsystem and plug-in. The first thread becomes the instance's
 * collector of freed queue nodes. Returns 0, or -1 with kest_errno:
 *   KEST_EINVAL  bad handle, or the thread already has a context;
 *   KEST_EPROTO  no plug-in registered the "TCP" or "UDP" protocol;
 *   KEST_ENOMEM  out of memory, or a subsystem failed.
 * After KEST_EPROTO or KEST_ENOMEM the thread must still call kest_fini().
 */
KEST_EXPORT int kest_init(kest_handle_t handle);

/**
 * Ends the calling thread's context in the instance. If the thread was the
 * collector, the most recently initialised remaining thread takes over.
 * From any thread's kest_fini() until the next kest_init() on the instance,
 * configuration changes (kest_config_set(), kest_rule_add(), ...) are stored
 * but no longer sent to the threads still running; a thread that starts later
 * reads the store. Returns 0, or -1 with KEST_EINVAL (bad handle or no thread
 * context).
 */
KEST_EXPORT int kest_fini(kest_handle_t handle);

/**
 * The idle pass: refreshes the thread's clock, delivers pending configuration
 * changes and other events to this thread, and on the collector thread frees
 * queue nodes that every thread has passed. Call it on a timer on every thread
 * that has a context; kest_classify() runs the same pass. kest_idle() then
 * lets the plug-ins do their upkeep: the bundled decoders end connections
 * whose time-out has passed (a bounded number per call, each reported to
 * "conn.expired" listeners) and drop stale IP fragments.
 * Thread context required; failure (KEST_EINVAL) shows only in kest_errno,
 * and an older kest_errno is left standing.
 */
KEST_EXPORT void kest_idle(kest_handle_t handle);

/** The instance the calling thread is working in: inside a call or a callback
 * its handle, otherwise 0. Never fails. */
KEST_EXPORT kest_handle_t kest_handle_get(void);

/** The calling thread's kest_errno. The handle is not examined; the word is
 * not cleared. */
KEST_EXPORT int kest_error_get(kest_handle_t handle);

/* ------------------------------------------------------------------------ */
/* Classification                                                            */
/* ------------------------------------------------------------------------ */

/** Packet forms that kest_classify() accepts. KEST_SELECTOR_CONN means that
 * the bytes are payload of one side of an existing connection. The other
 * three are whole packets, taken by the packet decoder plug-in (wire.plg),
 * which finds or makes the connection itself:
 *   KEST_SELECTOR_IP          an IP packet from its first header byte, IPv4
 *                             or IPv6 by the version nibble (the form of
 *                             kest_classify_simple(), netfilter queues, TUN
 *                             devices and raw captures);
 *   KEST_SELECTOR_ETHERNET    an Ethernet II frame, with any number of
 *                             802.1Q / 802.1ad tags, and PPPoE session frames;
 *   KEST_SELECTOR_LINUX_SLL   a Linux cooked-capture frame (16-byte header).
 * Tunnels (IP-in-IP, GRE, GTP-U, VXLAN, Teredo) are opened while the thread's
 * default policy has the tunnel bit ("conn.default_policy.tunnels"). A frame
 * of another kind (ARP, an IP protocol other than TCP and UDP, a malformed
 * packet) gets result code 0, "not classified", with connection number 0 and
 * error 0; so does a fragment, until the last one of its datagram brings the
 * whole datagram in. */
#define KEST_SELECTOR_CONN 0
#define KEST_SELECTOR_IP 1
#define KEST_SELECTOR_ETHERNET 2
#define KEST_SELECTOR_LINUX_SLL 3
#define KEST_SELECTOR_FORM_1 KEST_SELECTOR_IP
#define KEST_SELECTOR_FORM_2 KEST_SELECTOR_ETHERNET
#define KEST_SELECTOR_FORM_3 KEST_SELECTOR_LINUX_SLL

/**
 * Classifies one packet. Runs the idle pass first, then the plug-in
 * registered for the selector; calls callback once per result (the packet's
 * and each deferred one's). The packet is not copied.
 * data: must not be NULL.  length: must not be 0.
 * conn: required for KEST_SELECTOR_CONN, ignored otherwise.
 * side: for KEST_SELECTOR_CONN, non-zero names the second side.
 * callback: may be NULL only if the plug-ins never produce a result.
 * user: handed to the callback and to attribute listeners.
 * Thread context required. Returns 0, or -1 with kest_errno:
 *   KEST_EINVAL   bad handle, no context, NULL data, zero length, selector
 *                 outside 0..3;
 *   KEST_ENOTCONN selector 0 with a NULL connection;
 *   otherwise what the plug-in left (often 0) when no result was produced.
 * KEST_EPROTONOSUPPORT is left (with result 0) when a connection that the
 * callback asked to destroy belongs to neither TCP nor UDP.
 */
KEST_EXPORT int kest_classify(kest_handle_t handle, int selector, const void *data,
                              uint16_t length, kest_conn_t conn, int side,
                              kest_classify_callback_t callback, void *user);

/**
 * Classifies one packet as kest_classify() with KEST_SELECTOR_FORM_1, no
 * connection and side 0, and stores the application index of each result in
 * *app: a deferred result overwrites the packet's. Never destroys a
 * connection. app is the user word of attribute listeners too; with NULL
 * nothing is stored. Thread context required. Returns 0, or -1 with
 * kest_errno as kest_classify():
 *   KEST_EINVAL  bad handle, no context, NULL data, zero length;
 *   otherwise what the plug-in left (often 0) when no result was produced.
 */
KEST_EXPORT int kest_classify_simple(kest_handle_t handle, const void *data, uint16_t length,
                                     int *app);

/* ------------------------------------------------------------------------ */
/* Connections and application stacks                                        */
/* ------------------------------------------------------------------------ */

/**
 * Makes a connection for the calling thread through the connection factory of
 * the TCP (protocol 6) or UDP (17) plug-in, from the two endpoints (ports in
 * network order) and the protocol. Both endpoints must be given and have the
 * same family, KEST_FAMILY_IPV4 or KEST_FAMILY_IPV6. Stores the connection in
 * *conn, which is not checked. Thread context required. Returns 0, or -1 with
 * kest_errno, and then no connection exists:
 *   KEST_EINVAL          bad handle, no context, a NULL endpoint, families
 *                        that differ or are neither 1 nor 2;
 *   KEST_EPROTONOSUPPORT a protocol other than 6 and 17;
 *   KEST_ENOBUFS         no plug-in offers the factory, or it made nothing.
 */
KEST_EXPORT int kest_conn_create(kest_handle_t handle, const kest_endpoint_t *src,
                                 const kest_endpoint_t *dst, uint8_t protocol, kest_conn_t *conn);

/** Destroys a connection through its plug-in's factory; nothing happens when
 * no plug-in offers the factory. Thread context required. Returns 0, also
 * when the connection is of neither TCP nor UDP (kest_errno then holds
 * KEST_EPROTONOSUPPORT), or -1 with KEST_EINVAL for a bad handle, no context
 * or a NULL connection. */
KEST_EXPORT int kest_conn_destroy(kest_handle_t handle, kest_conn_t conn);

/** Fills *src and *dst with the endpoints of the connection last handled on
 * this thread, which must have number conn_id (so: inside a callback). Each
 * family follows from its own address: one whose first 12 bytes are zero and
 * last 4 are not reads as IPv4 (so ::1 comes back as 0.0.0.1), everything
 * else as IPv6 (so does an all-zero address). Ports in network order. Thread
 * context required. Returns 0, or -1 with KEST_EINVAL: bad handle, no
 * context, no active connection or another number, a NULL record. */
KEST_EXPORT int kest_endpoint_get(kest_handle_t handle, kest_conn_id_t conn_id,
                                  kest_endpoint_t *src, kest_endpoint_t *dst);

/* ------------------------------------------------------------------------ */
/* Packet facts                                                              */
/*                                                                           */
/* What a host needs to account for a whole packet (selectors 1 to 3) without */
/* parsing it again: the packet decoder records them on the classifying      */
/* thread as it parses, and kest_packet_shard() spreads packets over threads */
/* before they are classified.                                               */
/* ------------------------------------------------------------------------ */

/** kest_packet_facts_t.status values. */
#define KEST_PACKET_NONE 0      /* no whole packet was parsed (selector 0, or no
                                   packet decoder plug-in is loaded) */
#define KEST_PACKET_OK 1        /* an IP packet, or the datagram a last fragment
                                   completed; conn_id says whether it counted */
#define KEST_PACKET_NOT_IP 2    /* ARP, LLDP, ...: nothing for a decoder */
#define KEST_PACKET_FRAGMENT 3  /* a fragment whose datagram is not whole yet (or
                                   was dropped: out of time or memory) */
#define KEST_PACKET_MALFORMED 4 /* headers that do not fit the bytes */

/** kest_packet_facts_t.tunnel values: the outermost tunnel opened. */
#define KEST_TUNNEL_NONE 0
#define KEST_TUNNEL_IPIP 1   /* IP protocol 4 or 41 */
#define KEST_TUNNEL_GRE 2    /* IP protocol 47 */
#define KEST_TUNNEL_GTP 3    /* GTP-U over UDP */
#define KEST_TUNNEL_VXLAN 4  /* VXLAN over UDP */
#define KEST_TUNNEL_TEREDO 5 /* IPv6 in UDP */

/**
 * The facts of one whole packet, as the packet decoder saw it. Fields are
 * only ever added at the end.
 * conn_id:   the connection the packet counted with; 0 when it counted with
 *            none (status other than KEST_PACKET_OK, or a protocol without a
 *            transport plug-in). An ICMP error counts with the connection it
 *            quotes while that lasts.
 * status:    KEST_PACKET_*.
 * direction: 0 when the packet comes from the connection's first end point
 *            (the client: address and port match), 1 otherwise; 0 without
 *            a connection.
 * protocol:  the IP protocol of the innermost packet (after IPv6 extension
 *            headers); 0 for KEST_PACKET_NOT_IP and KEST_PACKET_NONE.
 * tunnel:    KEST_TUNNEL_* of the outermost tunnel that was opened (while
 *            the thread's default policy opens tunnels), also when what it
 *            carries could not be read; the packet's other fields are then
 *            those of the innermost packet read.
 * fragments: the frames this packet stands for: 1; for the fragment that
 *            completed a datagram, the number of fragments that made it
 *            (duplicates included); 0 for KEST_PACKET_FRAGMENT and for frames
 *            without IP.
 * payload_length: the transport payload in bytes (link padding cut off by
 *            the IP length); for a completed datagram the whole datagram's,
 *            for a waiting fragment its own share.
 * src, dst:  the innermost packet's end points, each in the family of its
 *            IP header (so ::1 stays IPv6 and 0.0.0.0 stays IPv4); ports in
 *            network order, 0 for protocols without ports (ICMP echoes carry
 *            their identifier, SCTP its ports, ESP its SPI halves).
 * client, server: the end points of connection conn_id, the first one
 *            first (see direction), in the family of the packet's IP header;
 *            family 0 without a connection.
 * outer_src, outer_dst, outer_protocol, outer_payload_length: the packet
 *            that carried the outermost tunnel, when tunnel is not
 *            KEST_TUNNEL_NONE; zero otherwise.
 * tcp_flags: the flags byte of a TCP header (FIN 0x01 ... CWR 0x80); 0 for
 *            other protocols.
 * ip_length: the innermost packet's IP length, its headers and payload (for
 *            a completed datagram the whole datagram's, for a waiting fragment
 *            its own); 0 without IP.
 * outer_ip_length: the same of the packet that carried the outermost tunnel;
 *            0 without one.
 */
typedef struct kest_packet_facts {
  kest_conn_id_t conn_id;
  uint8_t status;
  uint8_t direction;
  uint8_t protocol;
  uint8_t tunnel;
  uint32_t fragments;
  uint32_t payload_length;
  uint32_t outer_payload_length;
  kest_endpoint_t src;
  kest_endpoint_t dst;
  kest_endpoint_t client;
  kest_endpoint_t server;
  kest_endpoint_t outer_src;
  kest_endpoint_t outer_dst;
  uint8_t outer_protocol;
  uint8_t tcp_flags;
  uint32_t ip_length;
  uint32_t outer_ip_length;
} kest_packet_facts_t;

/**
 * Copies the facts of the last kest_classify() or kest_classify_simple() of
 * this instance on the calling thread into *facts. Whole from the packet's
 * classification callback (whose deferred results keep the packet's facts) to
 * the thread's next classifying call; attribute listeners during the packet
 * may find conn_id, direction, client and server still unset; a kest_classify() with selector 0 leaves status
 * KEST_PACKET_NONE and conn_id 0, and then the other fields mean nothing.
 * Thread context required. Returns 0, or -1 with kest_errno:
 *   KEST_EINVAL  bad handle, no context, NULL facts;
 *   KEST_ENOENT  the thread's last classifying call was in another instance,
 *                or it has made none.
 */
KEST_EXPORT int kest_packet_facts_get(kest_handle_t handle, kest_packet_facts_t *facts);

/**
 * The shard key of a whole packet: a number that depends only on the two
 * addresses of the outermost IP header, in either order, so that both
 * directions of a connection, every fragment of a datagram and everything
 * carried in one tunnel get the same key. Meant for a reader that hands
 * packets to classifying threads (key % threads). Reads the link header as
 * kest_classify() does (Ethernet with tags, PPPoE sessions, MPLS, Linux
 * cooked capture), nothing beyond the addresses. Pure: needs no instance, no
 * thread context and no hook, never fails and leaves kest_errno alone.
 * selector: KEST_SELECTOR_IP, _ETHERNET or _LINUX_SLL. data, length: the
 * frame. Returns the key; 0 for another selector, NULL data, a frame without
 * IP or one too short for its addresses.
 */
KEST_EXPORT uint32_t kest_packet_shard(int selector, const void *data, uint32_t length);

/** Host policy flags of kest_conn_policy_flags_disable() and
 * kest_conn_status_flags_get(). */
#define KEST_POLICY_ALL 1
#define KEST_POLICY_CHAMELEON 2
#define KEST_POLICY_FUTUREFLOWS 4
#define KEST_POLICY_ATTRIBUTES 8
#define KEST_POLICY_TUNNELS 16

/** Switches features off for the active connection conn_id (see
 * kest_endpoint_get()): KEST_POLICY_ALL switches off all of them, whatever
 * else is given. There is no call that switches them on again. Thread context
 * required. Returns 0, or -1 with KEST_EINVAL: bad handle, no context, not
 * the active connection, flags of 32 or more. */
KEST_EXPORT int kest_conn_policy_flags_disable(kest_handle_t handle, kest_conn_id_t conn_id,
                                               unsigned flags);

/** Stores in *flags (not checked) what has been found or done on the active
 * connection conn_id, as KEST_POLICY_* flags; KEST_POLICY_ALL stands for
 * anything at all, so a new connection reports 1. Thread context required.
 * Returns 0, or -1 with KEST_EINVAL: bad handle, no context, not the active
 * connection. */
KEST_EXPORT int kest_conn_status_flags_get(kest_handle_t handle, kest_conn_id_t conn_id,
                                           unsigned *flags);

/** The application index of a result. When confidence is not NULL, stores
 * 100 there, or 50 when the top of the stack is TCP or UDP and differs from
 * the application index. Thread context required. Returns the index, or -1
 * with KEST_EINVAL: bad handle, no context, NULL result. */
KEST_EXPORT int kest_app_get(kest_handle_t handle, kest_result_t *result, int *confidence);

/* Walking calls: no error checks, the handle is not examined. The moving ones
 * return the cursor they were given. */
/** Current becomes the lowest protocol; on an empty stack the end. */
KEST_EXPORT kest_result_t *kest_proto_first(kest_handle_t handle, kest_result_t *result);
/** Current becomes the highest protocol; on an empty stack the end. */
KEST_EXPORT kest_result_t *kest_proto_top(kest_handle_t handle, kest_result_t *result);
/** One entry up; from the highest, the end; at the end, stays. */
KEST_EXPORT kest_result_t *kest_proto_next(kest_handle_t handle, kest_result_t *result);
/** One entry down; from the lowest, the end; at the end, stays. */
KEST_EXPORT kest_result_t *kest_proto_prev(kest_handle_t handle, kest_result_t *result);
/** 1 if current is an entry, 0 at the end. */
KEST_EXPORT int kest_proto_valid(kest_handle_t handle, kest_result_t *result);
/** Current becomes the lowest entry with that protocol index, or the end. */
KEST_EXPORT kest_result_t *kest_proto_find(kest_handle_t handle, kest_result_t *result,
                                           int index);

/* ------------------------------------------------------------------------ */
/* Protocols                                                                 */
/* ------------------------------------------------------------------------ */

/** Protocol index of the cursor's current entry. Any thread. Returns the
 * index, or -1 with KEST_EINVAL: bad handle, NULL result, cursor at the end.
 */
KEST_EXPORT int kest_proto_get_index(kest_handle_t handle, kest_result_t *result);

/** Copies the name of protocol index into buf, cut to size - 1 characters
 * and always terminated, and returns buf. Needs no thread context, but must
 * not overlap a kest_proto_set_index(), kest_proto_add() or
 * kest_proto_remove() of the instance on another thread. NULL without an
 * error for an index that names no protocol; NULL with KEST_EINVAL for a bad
 * handle, a NULL buf or a size below 1. */
KEST_EXPORT char *kest_proto_get_name(kest_handle_t handle, int index, char *buf, int size);

/** Index of a protocol name (exact, case included). Any thread. Returns the
 * index; -1 without an error for a name without one; -1 with KEST_EINVAL for
 * a bad handle or a NULL name. */
KEST_EXPORT int kest_proto_find_index(kest_handle_t handle, const char *name);

/** Highest protocol index in use, 0 if none. Any thread. -1 with KEST_EINVAL
 * for a bad handle. */
KEST_EXPORT int kest_proto_max_index(kest_handle_t handle);

/** Moves a protocol to another index, so that a host can fix the numbers
 * whatever the plug-ins: only after kest_open() and while no thread has a
 * context. An index that another protocol holds is taken over: both names
 * then give that index, and the index gives this name. Returns 0, or -1 with
 * kest_errno:
 *   KEST_EINVAL  bad handle, NULL name, index below 1, a name without index;
 *   KEST_EBUSY   a thread has gone through kest_init() since the last
 *                kest_fini() (or the instance is still opening);
 *   out of memory: KEST_ENOMEM, or kest_errno left at 0. */
KEST_EXPORT int kest_proto_set_index(kest_handle_t handle, const char *name, int index);

/* ------------------------------------------------------------------------ */
/* Attributes                                                                */
/* ------------------------------------------------------------------------ */

/**
 * Identifier of an attribute on the calling thread: the key argument its
 * listener will get. Identifiers differ between threads and exist only while
 * a listener is set, from the idle pass after kest_attr_callback_set() on.
 * name: a name as kest_attr_callback_set() takes it; a member of a family
 *       (such as a header name) finds the family's registration.
 * Thread context required. Returns the identifier (1 or more); 0 when a
 * plug-in on this thread registered the name but no listener has reached the
 * thread yet; -1 when nothing on this thread registered it, or with
 * KEST_EINVAL on a bad handle, no context or a NULL name.
 */
KEST_EXPORT int kest_attr_key_get(kest_handle_t handle, const char *name);

/**
 * Installs the instance-wide listener of an attribute; the last call for a
 * name wins. The setting reaches every thread, the caller included, at its
 * next idle pass (kest_idle() or kest_classify()).
 * name: an attribute that a plug-in created, or a member of a family that a
 *       plug-in created (its setting is made on the way).
 * callback: the listener; NULL stops delivery for a name that has one. Do not
 *       pass NULL for a name that never had a listener.
 * Thread context required. Returns 0, or -1 with KEST_EINVAL: bad handle, no
 * context, NULL name, an unknown name, or the family refused the member.
 */
KEST_EXPORT int kest_attr_callback_set(kest_handle_t handle, const char *name,
                                       kest_attr_callback_t callback);

/* ------------------------------------------------------------------------ */
/* Configuration                                                             */
/* ------------------------------------------------------------------------ */

/** Sets a dotted key after every validator registered on its prefixes has
 * accepted the value; setting the stored value again does nothing. Threads hear
 * of the change at their next idle pass. Any thread once the instance is open.
 * Returns 0, or -1 with KEST_EINVAL (bad handle, NULL argument, a validator
 * refused) or KEST_ENOMEM (no memory for a new key). */
KEST_EXPORT int kest_config_set(kest_handle_t handle, const char *key, const char *value);

/** Copies a key's value into buf (cut to size - 1 characters).
 * Returns 0, or -1 with KEST_EINVAL (NULL argument, size below 1, key unset or
 * empty). */
KEST_EXPORT int kest_config_get(kest_handle_t handle, const char *key, char *buf, int size);

/** Prints every item as "<handle>: <key> = <value>" lines through
 * kest_diag_printf. Returns 0, or -1 with KEST_EINVAL on a bad handle. */
KEST_EXPORT int kest_config_dump(kest_handle_t handle);

/* ------------------------------------------------------------------------ */
/* Custom rules                                                              */
/* ------------------------------------------------------------------------ */

/* Custom applications: the host names a protocol with kest_proto_add() and
 * attaches rules to it with kest_rule_add(), each aimed at a module that takes
 * custom rules (one that serves INTERFACE_CUSTOM_RULE). The calls only write
 * configuration items, "customproto.<name>" and "customrule.<module>.<rule>";
 * each thread applies a rule change at its next kest_idle() or
 * kest_classify(), and rules present when a thread starts are applied by its
 * kest_init(). Once an item is written, a module that refuses the rule on a
 * thread is reported only by a warning on that thread. All four calls work
 * from any thread once the instance is open, without a thread context. */

/** Adds the rule text `rule` for the module named `module`, so that a hit
 * reports `protocol`. The rule text may hold dots and colons.
 * Returns 0 once the item is written, or -1 with:
 *   KEST_EINVAL  bad handle; `protocol` 0 or no known protocol number; NULL
 *                `module` or `rule`; no module of that name; the module's
 *                validator refused the text;
 *   KEST_EEXIST  the module has this rule already (for any protocol);
 *   KEST_ENOMEM  no memory for the key. */
KEST_EXPORT int kest_rule_add(kest_handle_t handle, int protocol, const char *module,
                              const char *rule);

/** Removes the rule `rule` of the module `module`. The protocol it reports is
 * the one it was added with: `protocol` only has to be non-zero.
 * Returns 0 once the item is cleared, or -1 with:
 *   KEST_EINVAL  bad handle; `protocol` 0; NULL `module` or `rule`;
 *   KEST_ENOENT  no such rule;
 *   255          the configuration store could not take the change (a
 *                validator that refuses it reports KEST_EINVAL first);
 *   KEST_ENOMEM  no memory for the key. */
KEST_EXPORT int kest_rule_remove(kest_handle_t handle, int protocol, const char *module,
                                 const char *rule);

/** Registers a custom protocol `name` of at most 8 characters, at the index
 * `protocol`, or with 0 at the next free index. An index that another
 * protocol holds is given all the same and keeps naming that protocol.
 * Returns the protocol's index, or -1 with:
 *   KEST_EINVAL  bad handle; NULL `name` or longer than 8 characters;
 *   KEST_EEXIST  a protocol of that name exists;
 *   KEST_ENOMEM  the registry could not take it. */
KEST_EXPORT int kest_proto_add(kest_handle_t handle, const char *name, int protocol);

/** Removes a protocol that kest_proto_add() registered. A rule removed by
 * kest_rule_remove() no longer holds it, even before threads have applied
 * the removal. Returns 0, or -1 with:
 *   KEST_EINVAL  bad handle; NULL `name`;
 *   KEST_ENOENT  no custom protocol of that name;
 *   KEST_EBUSY   a rule still refers to it;
 *   KEST_ENOMEM  no memory for the key. */
KEST_EXPORT int kest_proto_remove(kest_handle_t handle, const char *name);

/* ------------------------------------------------------------------------ */
/* Time                                                                      */
/* ------------------------------------------------------------------------ */

/** Sets the calling thread's clock to ms milliseconds. Thread context
 * required; failure (KEST_EINVAL) shows only in kest_errno. */
KEST_EXPORT void kest_clock_set(kest_handle_t handle, uint64_t ms);

/** mode non-zero: the host sets the time with kest_clock_set();
 * zero: the idle pass reads kest_gettimeofday. Failure only in kest_errno. */
KEST_EXPORT void kest_clock_set_mode(kest_handle_t handle, int mode);

/* ------------------------------------------------------------------------ */
/* Diagnostics and memory accounting                                         */
/* ------------------------------------------------------------------------ */

/** Runs the diagnostic report of a module on the calling thread, through
 * kest_diag_printf. module: the module's registered name; "SYSTEM" is the
 * library's own report (the status of every plug-in seen, then this thread's
 * event count). arg: handed to the module's report unread by the library
 * (the SYSTEM report ignores it). Needs a thread context (kest_init()).
 * Returns 0, or -1 with:
 *   KEST_EINVAL  bad handle, no thread context, or no module of that name;
 *   KEST_ENOENT  the module has no report on this thread;
 *   or -1 with kest_errno untouched when the report itself fails. */
KEST_EXPORT int kest_diag(kest_handle_t handle, const char *module, void *arg);

/** The calling thread's memory tag word: low 16 bits the context number, high
 * 16 bits the object number, 0 in a half for unspecified. Needs no instance
 * and never fails; meant for the host's allocation hooks, which may run on any
 * thread. */
KEST_EXPORT int kest_memory_tag_get(void);
/** Number of memory context numbers in use plus one (12 with no plug-ins), so
 * that indices 0 up to below it can be named. -1 with KEST_EINVAL for a bad
 * handle. */
KEST_EXPORT int kest_memory_ctx_num(kest_handle_t handle);
/** Writes the name of memory context number index into buf, cut to size by
 * kest_snprintf; "unspec" for 0 or an unused number. 0, or -1 with KEST_EINVAL
 * for a bad handle, a negative index, a null buf or a size below 1. */
KEST_EXPORT int kest_memory_ctx_name(kest_handle_t handle, int index, char *buf, int size);
/** Number of memory object numbers in use plus one (9 with no plug-ins). -1
 * with KEST_EINVAL for a bad handle. */
KEST_EXPORT int kest_memory_obj_num(kest_handle_t handle);
/** As kest_memory_ctx_name, for memory object numbers. */
KEST_EXPORT int kest_memory_obj_name(kest_handle_t handle, int index, char *buf, int size);

#ifdef __cplusplus
}
#endif

#endif /* KEST_H */
