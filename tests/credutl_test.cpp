// Credentials and security identifiers: SID bytes and texts, normalisation,
// conversions, the process's own credentials (set for real in children) and
// passwd/group look-ups under host names and /etc files of private
// namespaces.
#include "ks/credutl.h"

#include <errno.h>
#include <grp.h>
#include <locale.h>
#include <pwd.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <type_traits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ks_test_util.h"

using ks_test::child_result;

namespace {

const int kUnshareRefused = 77;
const uint32_t NOBODY = CREDUTL_ID_NOBODY;
const uint32_t ANY = CREDUTL_ID_DONTCARE;

// The first n bytes of a SID in hex.
std::string hex(const credutl_sid_t &sid, size_t n = CREDUTL_SID_SIZE)
{
    char buf[2 * CREDUTL_SID_SIZE + 1] = "";
    for (size_t i = 0; i < n; i++)
        snprintf(buf + 2 * i, 3, "%02x", reinterpret_cast<const uint8_t *>(&sid)[i]);
    return buf;
}

credutl_sid_t sid_from(std::initializer_list<uint8_t> bytes, uint8_t tail = 0)
{
    credutl_sid_t sid;
    memset(&sid, tail, sizeof sid);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<uint8_t *>(&sid));
    return sid;
}

credutl_sid_t unix_sid(uint32_t id, bool gid)
{
    credutl_sid_t sid = sid_from({}, 0xEE);
    return *(gid ? credutl_unix_gid_to_sid(id, &sid) : credutl_unix_uid_to_sid(id, &sid));
}

std::string text_of(const credutl_sid_t &sid, bool raw = false)
{
    char buf[CREDUTL_SID_STR_SIZE];
    return raw ? credutl_sid_to_str_raw(&sid, buf) : credutl_sid_to_str(&sid, buf);
}

credutl_credentials_t cred_of(credutl_uid_t uid, credutl_gid_t gid, std::initializer_list<credutl_gid_t> groups)
{
    credutl_credentials_t c = {uid, gid, static_cast<int32_t>(groups.size()), {}};
    std::copy(groups.begin(), groups.end(), c.groups);
    return c;
}

// The library's own text of a numeric or SID record.
template <class R>
std::string str(const R &c)
{
    char buf[CREDUTL_CREDENTIALS_STR_SIZE] = "";
    if constexpr (std::is_same_v<R, credutl_credentials_t>)
        return credutl_credentials_to_str(&c, buf);
    else
        return credutl_sid_credentials_to_str(&c, buf);
}

// The names of a string record, which is then freed.
std::string names_of(credutl_string_credentials_t *s)
{
    std::string t = std::string(s->user) + " " + s->group + " " + std::to_string(s->ngroups) + ":";
    for (int i = 0; i < s->ngroups; i++)
        t += std::string(" ") + s->groups[i];
    credutl_free_string_credentials(s);
    return t;
}

// "name id SID" of a group or a user record; the passwd record adds its
// group, passwd text and home.
template <class R>
std::string who(const R &r, uint32_t id)
{
    return std::string(r.name) + " " + std::to_string(id) + " " + text_of(r.sid);
}
std::string rec(const credutl_group_sid_t *g)
{
    return g ? who(*g, g->gid) : "null";
}
std::string rec(const credutl_passwd_sid_t *p)
{
    return p ? who(p->user, p->user.uid) + " | " + who(p->group, p->group.gid) + " | " + p->passwd + " | " + p->home
             : "null";
}

// Runs fn in a child with a UTS namespace of its own (plus the extra
// namespaces asked for), named host with the system domain name domain.
child_result in_host(const char *host, const char *domain, const std::function<int()> &fn, int extra = 0)
{
    return ks_test::run_in_child([&]() {
        if (unshare(CLONE_NEWUTS | extra) != 0 ||
            (extra != 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0))
            return printf("private namespaces refused: %s\n", strerror(errno)), kUnshareRefused;
        if (sethostname(host, strlen(host)) != 0 || setdomainname(domain, strlen(domain)) != 0)
            return 2;
        return fn();
    });
}

#define SKIP_IF_REFUSED(r) \
    do { if ((r).exit_code() == kUnshareRefused) GTEST_SKIP() << "namespaces refused: " << (r).out; } while (0)

// ---- SIDs ----

TEST(CredutlSid, BytesConstantsAndIdMappings)
{
    EXPECT_EQ(hex(sid_from({7, 2, 1, 2, 3, 4, 1})), hex(unix_sid(0x01020304u, false))) << "zero tail";
    EXPECT_EQ(hex(sid_from({7, 2, 0, 0, 0, 0x64, 2})), hex(unix_sid(100, true)));
    EXPECT_EQ(hex(sid_from({2, 0})) + hex(sid_from({2, 1})), hex(CREDUTL_SID_NOBODY) + hex(CREDUTL_SID_DONTCARE));
    EXPECT_EQ(0, keep_nobody_groups);
    // Only a UNIX SID of the right kind and length 7 gives its id (the
    // mapping of ids to SIDs is checked with the conversions).
    struct { credutl_sid_t sid; uint32_t uid, gid; } back[] = {
        {CREDUTL_SID_NOBODY, NOBODY, NOBODY}, {CREDUTL_SID_DONTCARE, ANY, ANY}, {unix_sid(77, false), 77, NOBODY},
        {unix_sid(77, true), NOBODY, 77}, {sid_from({8, 2, 0, 0, 0, 77, 1}), NOBODY, NOBODY},
        {sid_from({7, 3, 0, 0, 0, 77, 1}), NOBODY, NOBODY}};
    for (const auto &c : back) {
        SCOPED_TRACE(hex(c.sid, 8));
        EXPECT_EQ(c.uid, credutl_sid_to_uid(&c.sid));
        EXPECT_EQ(c.gid, credutl_sid_to_gid(&c.sid));
        if (c.sid.type == CREDUTL_SID_TYPE_UNIX) {
            EXPECT_EQ(c.uid, credutl_sid_to_unix_uid(&c.sid));
            EXPECT_EQ(c.gid, credutl_sid_to_unix_gid(&c.sid));
        }
    }
}

// Each assertion names its source by the short name.
TEST(CredutlDeathTest, AssertionsAbortWithTheirTexts)
{
    const char *not_unix = "PFM_ASSERT:\\(sid_p->type == CREDUTL_SID_TYPE_UNIX\\) failed: 'credutl_kernel':";
    EXPECT_DEATH(credutl_sid_to_unix_uid(&CREDUTL_SID_NOBODY), not_unix);
    EXPECT_DEATH(credutl_sid_to_unix_gid(&CREDUTL_SID_DONTCARE), not_unix);
    EXPECT_DEATH(text_of(sid_from({7, 2, 0, 0, 0, 1, 3})), "PFM_ASSERT:\\(type == CREDUTL_SID_UNIX_UID \\|\\| "
                                                           "type == CREDUTL_SID_UNIX_GID\\) failed: 'credutl':");
    credutl_gid_t gids[33] = {0};
    credutl_credentials_t c;
    EXPECT_DEATH(credutl_init_credentials(0, 0, 33, gids, &c),
                 "PFM_ASSERT:\\(ngroup <= CREDUTL_NGROUPS_MAX\\) failed: 'credutl':");
}

// Each SID prints as its text and its raw form (null: the same), and both
// parse back to the whole 34 bytes.
TEST(CredutlSidText, EveryFormPrintsAndParsesBack)
{
    struct { credutl_sid_t sid; const char *text, *raw; } cases[] = {
        {CREDUTL_SID_NOBODY, "NOBODY", "SID:0."}, {CREDUTL_SID_DONTCARE, "DONTCARE", "SID:1."},
        {unix_sid(0, false), "UNIX:UID-0", "SID:2.0000000001"},
        {unix_sid(100, true), "UNIX:GID-100", "SID:2.0000006402"},
        {unix_sid(NOBODY, false), "UNIX:UID--2", "SID:2.fffffffe01"},
        {unix_sid(0x80000000u, true), "UNIX:GID--2147483648", "SID:2.8000000002"},
        {sid_from({8, 2, 0, 0, 0, 100, 2, 0xff}), "SID:2.0000006402ff", nullptr},
        {sid_from({5, 3, 0x0a, 0x0b, 0x0c}), "SID:3.0a0b0c", nullptr}, {sid_from({2, 200}), "SID:-56.", nullptr},
        {sid_from({4, 255, 0x80, 0x7f}), "SID:-1.807f", nullptr}};
    for (const auto &c : cases) {
        const char *raw = c.raw != nullptr ? c.raw : c.text;
        EXPECT_EQ(std::string(c.text) + " " + raw, text_of(c.sid) + " " + text_of(c.sid, true));
        for (const char *text : {c.text, raw}) {
            credutl_sid_t back = sid_from({}, 0x5A);
            EXPECT_EQ(0, credutl_str_to_sid(text, &back)) << text;
            EXPECT_EQ(hex(c.sid), hex(back)) << text;
        }
    }
    // A length byte beyond the buffer prints the 32 value bytes and no more.
    EXPECT_EQ("SID:3." + std::string(64, 'a'), text_of(sid_from({200, 3}, 0xaa), true));
}

TEST(CredutlSidText, ParserIsExactCaseSensitiveAndBounded)
{
    // Numbers are read by atoi, hex two characters at a time until a pair
    // fails; 32 value bytes fill the SID exactly.  Every other text fails
    // (bytes "") and leaves the caller's SID alone, also a text whose bytes
    // would run past the 34.
    std::string full = "SID:3.";
    for (int i = 0; i < 32; i++)
        full += "a5";
    const struct { std::string text, bytes; } cases[] = {
        {"UNIX:UID-12abc", "07020000000c01"}, {"SID:3.", "0203"}, {"SID:3.0A0bzz11", "04030a0b"},
        {"SID:3.abc", "0403ab0c"}, {"SID:255.ff", "03ffff"}, {full, "2203" + full.substr(6)}, {"UNIX:XID-1", ""},
        {"UNIX:uid-1", ""}, {"unix:UID-1", ""}, {"SID:300.ab", ""}, {"SID:256.", ""}, {"SID:3", ""}, {"sid:3.ab", ""},
        {"nobody", ""}, {"NOBODY ", ""}, {"DontCare", ""}, {"", ""}, {"UNIX:", ""}, {"UNIX:UID", ""}, {"SID", ""},
        {" NOBODY", ""}, {full + "01", ""}, {full + "0", ""}};
    const std::string kept = hex(sid_from({9, 9, 9, 9}, 0x77));
    for (const auto &c : cases) {
        credutl_sid_t sid = sid_from({9, 9, 9, 9}, 0x77);
        EXPECT_EQ(c.bytes.empty() ? 1 : 0, credutl_str_to_sid(c.text.c_str(), &sid)) << "\"" << c.text << "\"";
        EXPECT_EQ(c.bytes.empty() ? kept : c.bytes, hex(sid, c.bytes.empty() ? CREDUTL_SID_SIZE : c.bytes.size() / 2))
            << "\"" << c.text << "\"";
    }
}

TEST(CredutlSidKeys, HashKeyCompareAndEquality)
{
    // 0x80 counts as -128: 3 + ((3 << 7) ^ -128).
    struct { credutl_sid_t sid; uint32_t hash; } hashes[] = {
        {CREDUTL_SID_NOBODY, 0}, {CREDUTL_SID_DONTCARE, 1}, {sid_from({3, 9, 0x55}), 0}, {sid_from({2, 3}), 3},
        {sid_from({3, 3, 0x80}), 0xFFFFFE03u}, {unix_sid(1, false), 2726626692u}};
    for (const auto &c : hashes)
        EXPECT_EQ(c.hash, credutl_sid_hash_fn(&c.sid)) << hex(c.sid, 7);
    // Bytes past the length never count; every nobody SID is one key;
    // unknown types are never keys.
    struct { credutl_sid_t a, b; bool key, eq; } pairs[] = {
        {sid_from({4, 3, 1, 2}), sid_from({4, 3, 1, 2}, 0xff), true, true},
        {sid_from({2, 0}), sid_from({5, 0, 1, 2, 3}), true, false},
        {sid_from({3, 7, 1}), sid_from({3, 7, 1}), false, true}, {unix_sid(5, false), unix_sid(5, true), false, false},
        {CREDUTL_SID_NOBODY, CREDUTL_SID_DONTCARE, false, false},
        {sid_from({4, 3, 1, 2}), sid_from({5, 3, 1, 2, 0}), false, false}};
    for (const auto &c : pairs) {
        SCOPED_TRACE(hex(c.a, 5) + " " + hex(c.b, 5));
        EXPECT_EQ(c.key, credutl_sid_keycmp_fn(&c.a, &c.b) != 0);
        EXPECT_EQ(c.eq, credutl_sid_eq(&c.a, &c.b) != 0);
        EXPECT_TRUE(!c.key || credutl_sid_hash_fn(&c.a) == credutl_sid_hash_fn(&c.b));
    }
}

// ---- Records ----

// Primary group dropped, sorted, duplicates removed, unused slots zero.
TEST(CredutlNormalise, NumericAndSidRecords)
{
    credutl_credentials_t c;
    memset(&c, 0xCC, sizeof c);
    credutl_gid_t gids[] = {7, 20, 0xFFFFFFF0u, 7, 20, 3, 20};
    credutl_init_credentials(1, 7, 7, gids, &c);
    EXPECT_EQ("UID: 1 GID: 7 Groups: 3 20 -16 ", str(c)) << "sorted as unsigned";
    EXPECT_EQ(CREDUTL_NGROUPS_MAX - 3, std::count(c.groups + 3, c.groups + CREDUTL_NGROUPS_MAX, 0u));
    // The record's own groups may be normalised in place; 32 is not too many.
    std::string want = "UID: 0 GID: 8 Groups: ";
    for (int i = 0; i < 32; i++) {
        c.groups[i] = static_cast<credutl_gid_t>(i < 5 ? 9 - i % 2 : 40 - i);
        want += i < 27 ? std::to_string(9 + i) + " " : "";
    }
    credutl_init_credentials(0, 8, 32, c.groups, &c);
    EXPECT_EQ(want, str(c));
    // The SID form also drops the special SIDs and sorts by type, length and bytes.
    credutl_sid_t user = unix_sid(10, false), group = unix_sid(10, true);
    credutl_sid_t in[40] = {unix_sid(300, true), group, CREDUTL_SID_NOBODY, sid_from({2, 1}), sid_from({3, 3, 0x10}),
                            unix_sid(2, true), sid_from({4, 3, 1, 2}, 0x99), unix_sid(300, true),
                            sid_from({4, 3, 1, 1}), sid_from({3, 3, 0x10}, 0x42)};
    credutl_sid_credentials_t sc;
    memset(&sc, 0xDD, sizeof sc);
    credutl_init_sid_credentials(&user, &group, 10, in, &sc);
    EXPECT_EQ("UID: UNIX:UID-10 GID: UNIX:GID-10 Groups: UNIX:GID-2 UNIX:GID-300 SID:3.10 SID:3.0101 SID:3.0102 ",
              str(sc));
    EXPECT_EQ(hex(sid_from({})), hex(sc.groups[sc.ngroups]));
    // At most 32 are taken, in input order, before sorting.
    for (int i = 0; i < 40; i++)
        in[i] = unix_sid(static_cast<credutl_gid_t>(1000 - i), true);
    credutl_init_sid_credentials(&user, &group, 40, in, &sc);
    EXPECT_EQ("32 UNIX:GID-969 UNIX:GID-1000",
              std::to_string(sc.ngroups) + " " + text_of(sc.groups[0]) + " " + text_of(sc.groups[31]));
}

TEST(CredutlMembership, GroupsAndUsersInEveryForm)
{
    credutl_credentials_t c = cred_of(5, 50, {60, 70});
    EXPECT_TRUE(credutl_has_group(50, &c) && credutl_has_group(70, &c));
    EXPECT_FALSE(credutl_has_group(0, &c)) << "unused slots are no groups";
    c.ngroups = 1;
    EXPECT_FALSE(credutl_has_group(70, &c));
    // A foreign SID may name a group of the user, a UNIX group SID never
    // names the user; the SID and the whole forms answer alike.
    credutl_sid_t user = unix_sid(5, false), f1 = sid_from({4, 3, 0xab, 0xcd}), f2 = sid_from({3, 3, 1});
    credutl_sid_t groups[2] = {unix_sid(60, true), f2};
    credutl_sid_credentials_t sc;
    credutl_init_sid_credentials(&user, &f1, 2, groups, &sc);
    credutl_whole_credentials_t w = {user, f1, 2, groups};
    struct { credutl_sid_t sid; bool group, user; } probes[] = {
        {user, false, true}, {groups[0], true, false}, {f1, true, true}, {f2, true, true},
        {unix_sid(61, true), false, false}, {sid_from({3, 3, 2}), false, false}, {CREDUTL_SID_NOBODY, false, false}};
    for (const auto &p : probes) {
        SCOPED_TRACE(text_of(p.sid));
        EXPECT_EQ(p.group, credutl_has_group_sid(&p.sid, &sc) != 0);
        EXPECT_EQ(p.group, credutl_has_group_whole(&p.sid, &w) != 0);
        EXPECT_EQ(p.user, credutl_has_user_sid(&p.sid, &sc) != 0);
        EXPECT_EQ(p.user, credutl_has_user(&p.sid, &w) != 0);
    }
    sc.user = w.user = CREDUTL_SID_DONTCARE;
    EXPECT_FALSE(credutl_has_user_sid(&sc.user, &sc) || credutl_has_user(&w.user, &w)) << "not even itself";
}

TEST(CredutlConvert, NumericAndSidFormsAndTheirTexts)
{
    credutl_credentials_t c = cred_of(NOBODY, ANY, {4, NOBODY, ANY});
    credutl_sid_credentials_t sc;
    memset(&sc, 0x33, sizeof sc);
    credutl_credentials_to_sid_credentials(&c, &sc);
    char buf[CREDUTL_CREDENTIALS_STR_SIZE] = "cred: ";
    EXPECT_EQ(buf, credutl_sid_credentials_to_str(&sc, buf));
    EXPECT_STREQ("cred: UID: NOBODY GID: DONTCARE Groups: UNIX:GID-4 NOBODY DONTCARE ", buf) << "texts are appended";
    EXPECT_EQ(hex(sid_from({})), hex(sc.groups[3]));
    // Back: nobody groups (and anything that is no UNIX gid) are dropped
    // unless keep_nobody_groups; don't-care stays as -1.
    sc.groups[3] = sid_from({3, 3, 1});
    sc.groups[4] = unix_sid(9, false);
    sc.ngroups = 5;
    memset(&c, 0x44, sizeof c);
    credutl_sid_credentials_to_credentials(&sc, &c);
    EXPECT_EQ(0u, c.groups[2]);
    EXPECT_EQ("UID: -2 GID: -1 Groups: 4 -1 ", str(c));
    keep_nobody_groups = 1;
    credutl_sid_credentials_to_credentials(&sc, &c);
    keep_nobody_groups = 0;
    EXPECT_EQ("UID: -2 GID: -1 Groups: 4 -2 -1 -2 -2 ", str(c));
    c.ngroups = sc.ngroups = 0;
    EXPECT_EQ("UID: -2 GID: -1 UID: NOBODY GID: DONTCARE ", str(c) + str(sc));
    // 32 groups of the longest SID text fit the documented size.
    std::fill(sc.groups, sc.groups + CREDUTL_NGROUPS_MAX, sid_from({34, 0x80}, 0xff));
    sc.ngroups = CREDUTL_NGROUPS_MAX;
    EXPECT_LT(str(sc).size(), sizeof buf);
}

TEST(CredutlConvert, CopyAndTheDeliberatelyPartialFree)
{
    credutl_string_credentials_t from = {strdup("dom/alice"), strdup("staff"), 2, {strdup("w"), strdup("d\\u")}};
    credutl_string_credentials_t to;
    memset(&to, 0x55, sizeof to);
    ASSERT_EQ(0, credutl_copy_string_credentials(&from, &to));
    EXPECT_TRUE(to.user != from.user && to.groups[1] != from.groups[1] && to.groups[2] == nullptr);
    char *stale_group = to.group;
    EXPECT_EQ("dom/alice staff 2: w d\\u", names_of(&to));
    // Only the user pointer is reset: the group pointer and the count stay.
    EXPECT_TRUE(to.user == nullptr && to.group == stale_group && to.ngroups == 2);
    credutl_free_string_credentials(&from);
}

// ---- The process's own credentials ----

TEST(CredutlProcess, ReadsTheCredentialsOfThisProcess)
{
    child_result r = ks_test::run_in_child([]() {
        // The kernel hands the list back sorted; the whole form keeps its
        // duplicates and loses only the first copy of the primary group.
        gid_t list[] = {5, 4, 3, 4, 3};
        credutl_credentials_t c;
        credutl_sid_credentials_t sc, all = {};
        credutl_whole_credentials_t w;
        if (setgroups(5, list) != 0 || setresgid(4, 4, 4) != 0 || setresuid(0, 1, 0) != 0 ||
            credutl_get_credentials(&c) != 0 || credutl_get_sid_credentials(&sc) != 0 ||
            credutl_get_whole_credentials(&w) != 0)
            return 2;
        credutl_sid_credentials_t whole = {w.user, w.group, w.ngroups, {}};
        std::copy(w.groups, w.groups + w.ngroups, whole.groups);
        credutl_free_whole_credentials(&w);
        all.ngroups = credutl_getgroups(1, all.groups);
        printf("%s\n%s\n%s\nfreed %d %p\n%d %s\n", str(c).c_str(), str(sc).c_str(), str(whole).c_str(), w.ngroups,
               static_cast<void *>(w.groups), credutl_getgroups(0, nullptr), str(all).c_str());
        // The SID buffer is rebuilt on every call.
        credutl_sid_t *u = credutl_getusid();
        printf("%s %s %d %d\n", text_of(*u).c_str(), text_of(*credutl_getgsid()).c_str(), credutl_is_root(),
               credutl_is_privileged());
        if (seteuid(0) != 0)
            return 3;
        printf("%s %d %d\n", text_of(*credutl_getusid()).c_str(), u == credutl_getusid(), credutl_is_root());
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("UID: 1 GID: 4 Groups: 3 5 \nUID: UNIX:UID-1 GID: UNIX:GID-4 Groups: UNIX:GID-3 UNIX:GID-5 \n"
              "UID: UNIX:UID-1 GID: UNIX:GID-4 Groups: UNIX:GID-3 UNIX:GID-3 UNIX:GID-4 UNIX:GID-5 \nfreed 0 (nil)\n"
              "5 UID: NOBODY GID: NOBODY Groups: UNIX:GID-3 UNIX:GID-3 UNIX:GID-4 UNIX:GID-4 UNIX:GID-5 \n"
              "UNIX:UID-1 UNIX:GID-4 0 0\nUNIX:UID-0 1 1\n",
              r.out + r.err);
}

// Each case runs as root in a child whose only group is 0 (or, after giving
// up privilege, as daemon); groups[i] is 40 - i.  The child prints the result
// and ngroups, the real, effective and saved uids and gids, the number of
// groups and the lowest-highest.  A failure stops at its step and prints
// exactly one message.
TEST(CredutlProcess, SettersChangeTheIdsOrReportTheFailingStep)
{
    const char *einval = " failed: Invalid argument\n", *eperm = "setgroups failed: Operation not permitted\n";
    struct { bool daemon, effective; uint32_t uid, gid; int ngroups; std::string out, err; } cases[] = {
        {false, false, 1, 2, 3, "0 3 | 1,1,1 2,2,2 | 3 38-40", ""},
        // Only the effective setter clamps, and it keeps the real ids (both
        // setters share the steps that fail).
        {false, true, 1, 2, 40, "0 32 | 0,1,0 0,2,0 | 32 9-40", ""},
        {false, false, 1, 2, 33, "1 33 | 0,0,0 0,0,0 | 1 0-0", std::string("setgroups") + einval},
        {true, false, 0, 0, 0, "1 0 | 1,1,1 1,1,1 | 1 1-1", eperm},
        {false, false, 1, ANY, 0, "1 0 | 0,0,0 0,0,0 | 0 0-0", std::string("setgid -1") + einval},
        {false, false, ANY, 3, 1, "1 1 | 0,0,0 3,3,3 | 1 40-40", std::string("setuid -1") + einval},
        {false, true, ANY, 3, 0, "1 0 | 0,0,0 0,3,0 | 0 0-0", std::string("setuid -1") + einval}};
    for (const auto &c : cases) {
        child_result r = ks_test::run_in_child([&]() {
            gid_t g = c.daemon ? 1 : 0, u[3], e[3], list[64];
            if (setgroups(1, &g) != 0 || setresgid(g, g, g) != 0 || setresuid(g, g, g) != 0)
                return 2;
            credutl_credentials_t cred = cred_of(c.uid, c.gid, {});
            for (int i = 0; i < CREDUTL_NGROUPS_MAX; i++)
                cred.groups[i] = static_cast<credutl_gid_t>(40 - i);
            cred.ngroups = c.ngroups;
            int rc = c.effective ? credutl_set_effective_credentials(&cred) : credutl_set_credentials(&cred);
            getresuid(&u[0], &u[1], &u[2]);
            getresgid(&e[0], &e[1], &e[2]);
            int n = getgroups(64, list);
            printf("%d %d | %u,%u,%u %u,%u,%u | %d %u-%u", rc, cred.ngroups, u[0], u[1], u[2], e[0], e[1], e[2], n,
                   n > 0 ? list[0] : 0, n > 0 ? list[n - 1] : 0);
            return 0;
        });
        SCOPED_TRACE(c.out);
        ASSERT_EQ(0, r.exit_code()) << r.err;
        EXPECT_EQ(c.out, r.out);
        EXPECT_THAT(r.err, ::testing::HasSubstr(c.err));
        EXPECT_EQ(c.err.empty() ? 0 : 1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
    }
}

// ---- Names ----

TEST(CredutlNames, CrackSplitsAtTheFirstSeparatorAndTruncates)
{
    struct { const char *fq; size_t dsize, nsize; const char *dom, *name; } cases[] = {
        {"example.com/alice", 16, 16, "example.com", "alice"}, {"DOM\\bob/x", 16, 16, "DOM", "bob/x"},
        {"carol", 16, 16, "<unknown>", "carol"}, {"dom/", 16, 16, "dom", ""}, {"/x", 16, 16, "", "x"},
        {nullptr, 16, 16, "<unknown>", ""}, {"a-very-long-domain-name/a-very-long-user-name", 8, 6, "a-very-", "a-ver"},
        {"\x95\x5c" "dom/alice", 16, 16, "\x95", "dom/alice"}};
    char dom[16], name[16];
    for (const auto &c : cases) {
        credutl_crack_fq_name(c.fq, dom, c.dsize, name, c.nsize);
        EXPECT_EQ(std::string(c.dom) + "|" + c.name, std::string(dom) + "|" + name) << (c.fq ? c.fq : "(null)");
    }
    // In Shift_JIS 0x95 0x5C is one character whose second byte is "\".
    if (setlocale(LC_ALL, "ja_JP.SJIS") == nullptr)
        GTEST_SKIP() << "the Shift_JIS test locale is not installed (LOCPATH)";
    credutl_crack_fq_name("\x95\x5c" "dom/alice", dom, sizeof dom, name, sizeof name);
    EXPECT_EQ("\x95\x5c" "dom|alice", std::string(dom) + "|" + name);
}

TEST(CredutlNames, StringEqComparesNamePartsOnly)
{
    // Null stands for the login name of this process (root).
    struct { const char *a, *b; bool eq; } cases[] = {
        {"Alice", "aLICE", true}, {"dom1/alice", "DOM2\\Alice", true}, {"alice", "other/ALICE", true},
        {"dom/alice", "dom/alicia", false}, {"dom/alice", "alice/dom", false}, {nullptr, "somewhere/ROOT", true},
        {"root", nullptr, true}, {nullptr, nullptr, true}, {nullptr, "daemon", false}};
    for (const auto &c : cases)
        EXPECT_EQ(c.eq, credutl_string_eq(c.a, c.b) != 0) << (c.a ? c.a : "(null)") << " " << (c.b ? c.b : "(null)");
}

// Printed: the domain, root's stored name, then which qualified names are
// found as user and as group.  The domain must match in length and but for
// case.
TEST(CredutlLookup, DomainComesFromTheHostNameOrTheSystemDomain)
{
    struct { const char *host, *domain, *out; } cases[] = {
        {"box", "(none)", "<unknown> root 00 00 00 00 00 00 00\n"},
        {"box", "", "<unknown> root 00 00 00 00 00 00 00\n"},
        {"box", "corp.example", "corp.example corp.example/root 11 00 00 00 00 00 00\n"},
        {"box.Example.COM", "nis.invalid", "Example.COM Example.COM/root 00 11 11 00 00 00 00\n"}};
    for (const auto &c : cases) {
        child_result r = in_host(c.host, c.domain, []() {
            printf("%s %s", credutl_get_domain(), credutl_getpwnam("root")->user.name);
            for (const char *n : {"CORP.EXAMPLE/root", "example.com/daemon", "EXAMPLE.com\\daemon", "example.co/daemon",
                                  "example.comm/daemon", "nis.invalid/daemon", "xample.com/daemon"})
                printf(" %d%d", credutl_getpwnam(n) != nullptr, credutl_getgrnam(n) != nullptr);
            printf("\n");
            return 0;
        });
        SKIP_IF_REFUSED(r);
        ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
        EXPECT_EQ(c.out, r.out) << c.host << " " << c.domain;
    }
}

TEST(CredutlLookup, StringCredentialsBothWays)
{
    child_result r = in_host("box.example.com", "", []() {
        credutl_string_credentials_t s;
        credutl_credentials_t c = cred_of(0, 1, {65534, NOBODY, 3999999, 0});
        credutl_sid_credentials_t sc;
        credutl_credentials_to_sid_credentials(&c, &sc);
        sc.user = unix_sid(3999999, false);
        sc.group = CREDUTL_SID_NOBODY;
        sc.groups[3] = sid_from({3, 3, 1});
        printf("%s\n", credutl_credentials_to_string_credentials(&c, &s) ? "failed" : names_of(&s).c_str());
        printf("%s\n", credutl_sid_credentials_to_string_credentials(&sc, &s) ? "failed" : names_of(&s).c_str());
        // Back: only the host's own domain (in any case) and known names count.
        char names[][24] = {"EXAMPLE.COM/daemon", "", "root", "example.org/root", "no-such-group",
                            "example.com\\nogroup", "daemon"};
        credutl_string_credentials_t in = {names[0], names[1], 5, {names[2], names[3], names[4], names[5], names[6]}};
        credutl_string_credentials_to_credentials(&in, &c);
        credutl_string_credentials_to_sid_credentials(&in, &sc);
        printf("%s\n%s\n", str(c).c_str(), str(sc).c_str());
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("example.com/root example.com/daemon 4: example.com/nogroup nobody nobody example.com/root\n"
              "nobody nobody 2: example.com/nogroup nobody\nUID: 1 GID: -2 Groups: 0 -2 -2 65534 1 \n"
              "UID: UNIX:UID-1 GID: NOBODY Groups: UNIX:GID-0 NOBODY NOBODY UNIX:GID-65534 UNIX:GID-1 \n",
              r.out);
}

// Test users and groups exist only in the child's mount namespace, where
// copies of /etc/passwd and /etc/group are bound over the real ones; root,
// daemon and nobody are the machine's own.
TEST(CredutlLookup, RealAndTestEntriesByNameIdAndSid)
{
    ks_test::temp_dir dir;
    ks_test::write_file(dir.file("passwd"), ks_test::read_file("/etc/passwd") +
                                                "ksalice:x:4242:4343:Alice:/home/ksalice:/bin/sh\n"
                                                "ksorphan:x:4244:4999::/" + std::string(1099, 'h') + ":/bin/sh\n");
    ks_test::write_file(dir.file("group"), ks_test::read_file("/etc/group") + "ksgroup:x:4343:ksalice\n");
    child_result r = in_host("host.lab.test", "", [&]() {
        if (mount(dir.file("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0 ||
            mount(dir.file("group").c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0)
            return 3;
        credutl_sid_t u0 = unix_sid(0, false), g1 = unix_sid(1, true), g1_long = sid_from({8, 2, 0, 0, 0, 1, 2});
        credutl_passwd_sid_t *pw = credutl_getpwuid(1);
        printf("%s\n", rec(pw).c_str());
        for (const char *name : {"nobody", "LAB.test\\ksalice"})
            printf("%s\n", rec(credutl_getpwnam(name)).c_str());
        printf("%s\n", rec(credutl_getpwsid(&u0)).c_str());
        // The record is reused; a gid without a group has an empty name.
        printf("same %d ", pw == credutl_getpwnam("ksorphan"));
        printf("%s %u [%s] %zu\n", pw->user.name, pw->group.gid, pw->group.name, strlen(pw->home));
        printf("%s\n%s\n%s\n", rec(credutl_getgrsid(&g1)).c_str(), rec(credutl_getgrnam("lab.test/ksgroup")).c_str(),
               rec(credutl_getgrgid(65534)).c_str());
        // Wrong kind, special, over-long or unknown: no entry.
        printf("%d%d%d%d%d%d%d\n", !credutl_getgrsid(&u0), !credutl_getpwsid(&g1),
               !credutl_getpwsid(&CREDUTL_SID_NOBODY), !credutl_getgrsid(&CREDUTL_SID_DONTCARE),
               !credutl_getgrsid(&g1_long), !credutl_getpwnam("no-such-user"), !credutl_getgrnam("no-such-group"));
        return 0;
    }, CLONE_NEWNS);
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    const char *unknown = " | <credutl_fq_passwd unknown> | ";
    EXPECT_EQ(std::string("lab.test/daemon 1 UNIX:UID-1 | lab.test/daemon 1 UNIX:GID-1") + unknown + "/usr/sbin\n" +
                  "lab.test/nobody 65534 UNIX:UID-65534 | lab.test/nogroup 65534 UNIX:GID-65534" + unknown +
                  "/nonexistent\nlab.test/ksalice 4242 UNIX:UID-4242 | lab.test/ksgroup 4343 UNIX:GID-4343" +
                  unknown + "/home/ksalice\nlab.test/root 0 UNIX:UID-0 | lab.test/root 0 UNIX:GID-0" + unknown +
                  "/root\nsame 1 lab.test/ksorphan 4999 [] 1023\nlab.test/daemon 1 UNIX:GID-1\n"
                  "lab.test/ksgroup 4343 UNIX:GID-4343\nlab.test/nogroup 65534 UNIX:GID-65534\n1111111\n",
              r.out);
    EXPECT_EQ(nullptr, getpwnam("ksalice")) << "the machine's own files never saw the test entries";
}

} // namespace
