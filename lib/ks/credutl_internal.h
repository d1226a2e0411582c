// Internal: included by credutl*.cpp only; never installed.
// The few SID facts that the credentials module's sources share.
#ifndef KS_CREDUTL_INTERNAL_H
#define KS_CREDUTL_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include "ks/credutl.h"

namespace ks {

// Meaningful length of a SID, never beyond its 34 bytes, whatever the
// length byte claims.
inline size_t sid_length(const credutl_sid_t *sid)
{
    return sid->length > CREDUTL_SID_SIZE ? CREDUTL_SID_SIZE : sid->length;
}

// NOBODY or DONTCARE by type, whatever the length.
inline bool sid_is_special(const credutl_sid_t *sid)
{
    return sid->type == CREDUTL_SID_TYPE_NOBODY || sid->type == CREDUTL_SID_TYPE_DONTCARE;
}

// The kind of a UNIX SID of length 7 (CREDUTL_SID_UNIX_UID or _GID, or
// whatever byte 6 holds); 0 for every other SID.
inline uint8_t unix_sid_kind(const credutl_sid_t *sid)
{
    if (sid->type != CREDUTL_SID_TYPE_UNIX || sid->length != CREDUTL_SID_UNIX_LENGTH)
        return 0;
    return sid->value[4];
}

// A record's group count as far as its slots go.
inline int group_slots(int32_t n)
{
    if (n < 0)
        return 0;
    return n > CREDUTL_NGROUPS_MAX ? CREDUTL_NGROUPS_MAX : n;
}

} // namespace ks

#endif
