// hostinfo: the host key (getHostKey over getUNIXHostID and getOSMHostName), the user-name
// lookup vk_username (process inspection calls it) and two small string helpers. The host
// key is offered to whoever needs a stable host identity; results are handed to the caller.
// Thread safety: every function is safe from any thread (no shared state).
// Interface only, kept for the unit's completeness (nothing in the agent calls them): getHostKey
// (with getUNIXHostID and getOSMHostName under it), getCntOfChr, removeChar.
#pragma once

#include <cstddef>
#include <sys/types.h>

// Size of the host ID and host key buffers; the host ID holds at most
// HOST_ID_SIZE - 1 characters (whole hex pairs only, so at most 254).
inline constexpr size_t HOST_ID_SIZE = 256;
// Size of the host name buffer of getOSMHostName.
inline constexpr size_t OSM_HOST_NAME_SIZE = 64;

// Appends each of the `len` bytes as two lower-case hex digits ("%02x") to the terminated
// string in `dst` (`size` bytes), stopping before the first pair that does not fit
// completely; `dst` stays terminated. Returns the new string length. A null dst or a size
// of 0 appends nothing and returns 0. Building block of getUNIXHostID.
size_t host_id_append_hex(char *dst, size_t size, const unsigned char *bytes, size_t len);

// The host ID: the link-layer addresses of all interfaces, in enumeration order, as
// lower-case hex without separators (the loopback's "000000000000" included); cut at the
// last whole pair that fits in HOST_ID_SIZE bytes. A host without link-layer entries gives
// "". Returns a malloc'd HOST_ID_SIZE-byte string (free with free()), or null when it
// cannot be allocated, getifaddrs fails, or a link-layer entry left the ID empty (each
// logged at ERROR).
[[nodiscard]] char *getUNIXHostID();
// gethostname's result in a malloc'd OSM_HOST_NAME_SIZE-byte string (free with free()), or
// null when gethostname fails, the name is empty, or the copy cannot be allocated.
[[nodiscard]] char *getOSMHostName();
// The host key: the host ID, or the host name when no host ID can be had. Returns a
// malloc'd HOST_ID_SIZE-byte string (free with free()), or null when both fail or the
// buffer cannot be allocated.
[[nodiscard]] char *getHostKey();

// Writes the login name of `uid` into buf (bounded by len), or the uid as "%d" when the
// lookup fails or finds no entry; buf[len - 1] is always set to NUL. Returns 0 (a null buf
// or a len of 0 writes nothing).
int vk_username(uid_t uid, char *buf, size_t len);

// Number of occurrences of ch in str; 0 for a null str.
int getCntOfChr(const char *str, char ch);
// Removes every occurrence of ch from str in place; a null str is ignored.
void removeChar(char *str, char ch);
