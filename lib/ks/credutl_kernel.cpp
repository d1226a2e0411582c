// Security identifiers and numeric ids: the SID bytes, the mapping between
// ids and SIDs, equality and the hash-table key procedures.
#include "ks/credutl.h"

#include <string.h>

#include "credutl_internal.h"
#include "ks_assert.h"

static_assert(sizeof(credutl_sid_t) == CREDUTL_SID_SIZE, "a SID is 34 bytes on every host");

const credutl_sid_t CREDUTL_SID_NOBODY = {2, CREDUTL_SID_TYPE_NOBODY, {0}};
const credutl_sid_t CREDUTL_SID_DONTCARE = {2, CREDUTL_SID_TYPE_DONTCARE, {0}};

namespace {

credutl_sid_t *make_unix_sid(uint32_t id, uint8_t kind, credutl_sid_t *sid)
{
    memset(sid, 0, sizeof *sid);
    sid->length = CREDUTL_SID_UNIX_LENGTH;
    sid->type = CREDUTL_SID_TYPE_UNIX;
    sid->value[0] = static_cast<uint8_t>(id >> 24);
    sid->value[1] = static_cast<uint8_t>(id >> 16);
    sid->value[2] = static_cast<uint8_t>(id >> 8);
    sid->value[3] = static_cast<uint8_t>(id);
    sid->value[4] = kind;
    return sid;
}

// Id of a UNIX SID of the given kind and length 7, else nobody.
uint32_t unix_sid_to_id(const credutl_sid_t *sid, uint8_t kind)
{
    KS_ASSERT(sid->type == CREDUTL_SID_TYPE_UNIX, "sid_p->type == CREDUTL_SID_TYPE_UNIX");
    if (ks::unix_sid_kind(sid) != kind)
        return CREDUTL_ID_NOBODY;
    return (static_cast<uint32_t>(sid->value[0]) << 24) |
           (static_cast<uint32_t>(sid->value[1]) << 16) |
           (static_cast<uint32_t>(sid->value[2]) << 8) | static_cast<uint32_t>(sid->value[3]);
}

credutl_sid_t *id_to_sid(credutl_sid_t *sid, uint32_t id, uint8_t kind)
{
    if (id == CREDUTL_ID_NOBODY)
        *sid = CREDUTL_SID_NOBODY;
    else if (id == CREDUTL_ID_DONTCARE)
        *sid = CREDUTL_SID_DONTCARE;
    else
        make_unix_sid(id, kind, sid);
    return sid;
}

uint32_t sid_to_id(const credutl_sid_t *sid, uint8_t kind)
{
    if (sid->type == CREDUTL_SID_TYPE_NOBODY)
        return CREDUTL_ID_NOBODY;
    if (sid->type == CREDUTL_SID_TYPE_DONTCARE)
        return CREDUTL_ID_DONTCARE;
    if (sid->type == CREDUTL_SID_TYPE_UNIX)
        return unix_sid_to_id(sid, kind);
    return CREDUTL_ID_NOBODY;
}

} // namespace

credutl_sid_t *credutl_unix_uid_to_sid(credutl_uid_t uid, credutl_sid_t *sid)
{
    return make_unix_sid(uid, CREDUTL_SID_UNIX_UID, sid);
}

credutl_sid_t *credutl_unix_gid_to_sid(credutl_gid_t gid, credutl_sid_t *sid)
{
    return make_unix_sid(gid, CREDUTL_SID_UNIX_GID, sid);
}

credutl_uid_t credutl_sid_to_unix_uid(const credutl_sid_t *sid)
{
    return unix_sid_to_id(sid, CREDUTL_SID_UNIX_UID);
}

credutl_gid_t credutl_sid_to_unix_gid(const credutl_sid_t *sid)
{
    return unix_sid_to_id(sid, CREDUTL_SID_UNIX_GID);
}

credutl_sid_t *credutl_uid_to_sid(credutl_sid_t *sid, credutl_uid_t uid)
{
    return id_to_sid(sid, uid, CREDUTL_SID_UNIX_UID);
}

credutl_sid_t *credutl_gid_to_sid(credutl_sid_t *sid, credutl_gid_t gid)
{
    return id_to_sid(sid, gid, CREDUTL_SID_UNIX_GID);
}

credutl_uid_t credutl_sid_to_uid(const credutl_sid_t *sid)
{
    return sid_to_id(sid, CREDUTL_SID_UNIX_UID);
}

credutl_gid_t credutl_sid_to_gid(const credutl_sid_t *sid)
{
    return sid_to_id(sid, CREDUTL_SID_UNIX_GID);
}

int credutl_sid_eq(const credutl_sid_t *a, const credutl_sid_t *b)
{
    if (a == b)
        return 1;
    if (a->length != b->length)
        return 0;
    return memcmp(a, b, ks::sid_length(a)) == 0 ? 1 : 0;
}

uint32_t credutl_sid_hash_fn(const void *key)
{
    const auto *sid = static_cast<const credutl_sid_t *>(key);
    if (sid->type != CREDUTL_SID_TYPE_UNIX && sid->type != CREDUTL_SID_TYPE_FOREIGN)
        return sid->type == CREDUTL_SID_TYPE_DONTCARE ? 1 : 0;
    uint32_t h = sid->type;
    size_t length = ks::sid_length(sid);
    for (size_t i = 0; i + 2 < length; i++) {
        // The byte counts as a signed char: its sign spreads over the word.
        auto b = static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(sid->value[i])));
        h = h + ((h << 7) ^ b);
    }
    return h;
}

int credutl_sid_keycmp_fn(const void *a_key, const void *b_key)
{
    const auto *a = static_cast<const credutl_sid_t *>(a_key);
    const auto *b = static_cast<const credutl_sid_t *>(b_key);
    if (a->type != b->type)
        return 0;
    if (ks::sid_is_special(a))
        return 1;
    if (a->type != CREDUTL_SID_TYPE_UNIX && a->type != CREDUTL_SID_TYPE_FOREIGN)
        return 0;
    return a->length == b->length && memcmp(a, b, ks::sid_length(a)) == 0 ? 1 : 0;
}
