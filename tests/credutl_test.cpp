// Credentials and security identifiers: SID bytes and texts, normalisation,
// conversions, the process's own credentials (set for real in children) and
// passwd/group look-ups under host names and /etc files of private
// namespaces.
#include "ks/credutl.h"

#include <errno.h>
#include <grp.h>
#include <linux/capability.h>
#include <locale.h>
#include <pwd.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ks_test_util.h"

using ::testing::HasSubstr;
using ks_test::child_result;
using ks_test::run_in_child;

namespace {

const int UNSHARE_REFUSED = 77;

std::string bytes_of(const credutl_sid_t &sid, size_t n = CREDUTL_SID_SIZE)
{
    static const char digits[] = "0123456789abcdef";
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&sid);
    std::string s;
    for (size_t i = 0; i < n; i++) {
        if (i > 0)
            s += ' ';
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

credutl_sid_t sid_from(std::initializer_list<int> bytes, uint8_t tail = 0)
{
    credutl_sid_t sid;
    memset(&sid, tail, sizeof sid);
    uint8_t *p = reinterpret_cast<uint8_t *>(&sid);
    size_t i = 0;
    for (int b : bytes)
        p[i++] = static_cast<uint8_t>(b);
    return sid;
}

std::string text_of(const credutl_sid_t &sid)
{
    char buf[CREDUTL_SID_STR_SIZE];
    return credutl_sid_to_str(&sid, buf);
}

std::string raw_of(const credutl_sid_t &sid)
{
    char buf[CREDUTL_SID_STR_SIZE];
    return credutl_sid_to_str_raw(&sid, buf);
}

// The regular expression that matches text literally.
std::string literal(const std::string &text)
{
    std::string re;
    for (char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c) != nullptr)
            re += '\\';
        re += c;
    }
    return re;
}

// The fault layer's line for a failed check of expr in source.
std::string assertion(const std::string &expr, const std::string &source)
{
    return literal("PFM_ASSERT:(" + expr + ") failed: '" + source + "':");
}

// Runs fn in a child given new namespaces (CLONE_NEWUTS, CLONE_NEWNS).  The
// caller skips when the sandbox refuses them.
child_result in_namespaces(int flags, const std::function<int()> &fn)
{
    return run_in_child([&]() {
        if (unshare(flags) != 0) {
            printf("unshare refused: %s\n", strerror(errno));
            return UNSHARE_REFUSED;
        }
        if ((flags & CLONE_NEWNS) != 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            printf("unshare refused: making / private: %s\n", strerror(errno));
            return UNSHARE_REFUSED;
        }
        return fn();
    });
}

#define SKIP_IF_REFUSED(r)                                                                      \
    do {                                                                                        \
        if ((r).exit_code() == UNSHARE_REFUSED)                                                 \
            GTEST_SKIP() << "private namespaces are not available here: " << (r).out;           \
    } while (0)

// Names this host (and its NIS domain) inside the child's UTS namespace.
int set_host(const char *host, const char *domain)
{
    if (sethostname(host, strlen(host)) != 0 || setdomainname(domain, strlen(domain)) != 0) {
        printf("cannot name the host: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

// Prints a passwd record on one line (or "null").
void print_pw(const credutl_passwd_sid_t *pw)
{
    if (pw == nullptr) {
        printf("null\n");
        return;
    }
    printf("%s %u %s | %s %u %s | %s | %s\n", pw->user.name, pw->user.uid, text_of(pw->user.sid).c_str(),
           pw->group.name, pw->group.gid, text_of(pw->group.sid).c_str(), pw->passwd, pw->home);
}

void print_gr(const credutl_group_sid_t *gr)
{
    if (gr == nullptr)
        printf("null\n");
    else
        printf("%s %u %s\n", gr->name, gr->gid, text_of(gr->sid).c_str());
}

std::string ids_line()
{
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    getresuid(&ru, &eu, &su);
    getresgid(&rg, &eg, &sg);
    gid_t list[64];
    int n = getgroups(64, list);
    std::string s = "uid " + std::to_string(ru) + "," + std::to_string(eu) + "," + std::to_string(su) + " gid " +
                    std::to_string(rg) + "," + std::to_string(eg) + "," + std::to_string(sg) + " groups";
    for (int i = 0; i < n; i++)
        s += " " + std::to_string(list[i]);
    return s;
}

// Gives up every privilege: groups, gids and uids all become daemon's.
int drop_to_daemon()
{
    gid_t one = 1;
    if (setgroups(1, &one) != 0 || setresgid(1, 1, 1) != 0 || setresuid(1, 1, 1) != 0) {
        printf("cannot drop privilege: %s\n", strerror(errno));
        return 1;
    }
    return 0;
}

// Removes one capability from the effective and permitted sets.
int drop_capability(int cap)
{
    struct __user_cap_header_struct hdr = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &hdr, data) != 0)
        return 1;
    data[cap / 32].effective &= ~(1u << (cap % 32));
    data[cap / 32].permitted &= ~(1u << (cap % 32));
    return syscall(SYS_capset, &hdr, data) != 0 ? 1 : 0;
}

credutl_credentials_t cred_of(credutl_uid_t uid, credutl_gid_t gid, std::vector<credutl_gid_t> groups)
{
    credutl_credentials_t c;
    memset(&c, 0, sizeof c);
    c.uid = uid;
    c.gid = gid;
    c.ngroups = static_cast<int32_t>(groups.size());
    for (size_t i = 0; i < groups.size() && i < CREDUTL_NGROUPS_MAX; i++)
        c.groups[i] = groups[i];
    return c;
}

std::string groups_of(const credutl_credentials_t &c)
{
    std::string s;
    for (int i = 0; i < c.ngroups; i++)
        s += (i ? " " : "") + std::to_string(static_cast<int32_t>(c.groups[i]));
    return s;
}

// ---- SID bytes and the id mappings ----

TEST(CredutlSid, UnixSidBytesAndConstants)
{
    EXPECT_EQ(34u, sizeof(credutl_sid_t));
    credutl_sid_t sid;
    memset(&sid, 0xEE, sizeof sid);
    credutl_unix_uid_to_sid(0x01020304u, &sid);
    EXPECT_EQ("07 02 01 02 03 04 01", bytes_of(sid, 7));
    credutl_unix_gid_to_sid(100, &sid);
    EXPECT_EQ(bytes_of(sid_from({7, 2, 0, 0, 0, 0x64, 2})), bytes_of(sid)) << "built SIDs have a zero tail";
    EXPECT_EQ(bytes_of(sid_from({2, 0})), bytes_of(CREDUTL_SID_NOBODY));
    EXPECT_EQ(bytes_of(sid_from({2, 1})), bytes_of(CREDUTL_SID_DONTCARE));
    EXPECT_EQ(0, keep_nobody_groups);
}

TEST(CredutlSid, NobodyAndDontcareIdsMapToSpecialSids)
{
    credutl_sid_t sid;
    EXPECT_EQ(&sid, credutl_uid_to_sid(&sid, 0xFFFFFFFEu));
    EXPECT_EQ("NOBODY", text_of(sid));
    EXPECT_TRUE(credutl_sid_eq(&sid, &CREDUTL_SID_NOBODY));
    credutl_gid_to_sid(&sid, 0xFFFFFFFFu);
    EXPECT_EQ("DONTCARE", text_of(sid));
    credutl_uid_to_sid(&sid, 1234);
    EXPECT_EQ("UNIX:UID-1234", text_of(sid));
    credutl_gid_to_sid(&sid, 0);
    EXPECT_EQ("UNIX:GID-0", text_of(sid));
    // The UNIX builders never map: -2 stays an id.
    credutl_unix_uid_to_sid(0xFFFFFFFEu, &sid);
    EXPECT_EQ("UNIX:UID--2", text_of(sid));

    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_uid(&CREDUTL_SID_NOBODY));
    EXPECT_EQ(0xFFFFFFFFu, credutl_sid_to_gid(&CREDUTL_SID_DONTCARE));
    credutl_unix_uid_to_sid(77, &sid);
    EXPECT_EQ(77u, credutl_sid_to_uid(&sid));
    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_gid(&sid)) << "a uid SID is no gid";
    EXPECT_EQ(77u, credutl_sid_to_unix_uid(&sid));
    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_unix_gid(&sid));
    sid.length = 8;
    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_uid(&sid)) << "only length 7 is a UNIX id";
    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_unix_uid(&sid));
    credutl_sid_t foreign = sid_from({7, 3, 0, 0, 0, 77, 1});
    EXPECT_EQ(0xFFFFFFFEu, credutl_sid_to_uid(&foreign));
}

TEST(CredutlSidDeath, UnixIdOfANonUnixSidAborts)
{
    EXPECT_DEATH(credutl_sid_to_unix_uid(&CREDUTL_SID_NOBODY),
                 assertion("sid_p->type == CREDUTL_SID_TYPE_UNIX", "credutl_kernel"));
    credutl_sid_t foreign = sid_from({3, 3, 9});
    EXPECT_DEATH(credutl_sid_to_unix_gid(&foreign),
                 assertion("sid_p->type == CREDUTL_SID_TYPE_UNIX", "credutl_kernel"));
}

TEST(CredutlSidDeath, TextOfAUnixSidOfUnknownKindAborts)
{
    credutl_sid_t sid = sid_from({7, 2, 0, 0, 0, 1, 3});
    EXPECT_DEATH(text_of(sid), assertion("type == CREDUTL_SID_UNIX_UID || type == CREDUTL_SID_UNIX_GID", "credutl"));
}

// ---- Text forms ----

TEST(CredutlSidText, EveryFormParsesBackToTheSameBytes)
{
    credutl_sid_t sids[8];
    sids[0] = CREDUTL_SID_NOBODY;
    sids[1] = CREDUTL_SID_DONTCARE;
    credutl_unix_uid_to_sid(0, &sids[2]);
    credutl_unix_gid_to_sid(100, &sids[3]);
    credutl_unix_uid_to_sid(0xFFFFFFFEu, &sids[4]);
    credutl_unix_gid_to_sid(0x80000000u, &sids[5]);
    sids[6] = sid_from({5, 3, 0x0a, 0x0b, 0x0c});
    sids[7] = sid_from({2, 200});
    const char *texts[] = {"NOBODY", "DONTCARE", "UNIX:UID-0", "UNIX:GID-100", "UNIX:UID--2",
                           "UNIX:GID--2147483648", "SID:3.0a0b0c", "SID:-56."};
    for (int i = 0; i < 8; i++) {
        EXPECT_EQ(texts[i], text_of(sids[i]));
        credutl_sid_t back;
        memset(&back, 0x5A, sizeof back);
        ASSERT_EQ(0, credutl_str_to_sid(texts[i], &back)) << texts[i];
        EXPECT_EQ(bytes_of(sids[i]), bytes_of(back)) << texts[i];
    }
}

TEST(CredutlSidText, RawFormOfEverySid)
{
    EXPECT_EQ("SID:1.", raw_of(CREDUTL_SID_DONTCARE));
    EXPECT_EQ("SID:0.", raw_of(CREDUTL_SID_NOBODY));
    credutl_sid_t sid;
    credutl_unix_gid_to_sid(100, &sid);
    EXPECT_EQ("SID:2.0000006402", raw_of(sid));
    // A UNIX SID of another length has no UNIX text.
    sid = sid_from({8, 2, 0, 0, 0, 100, 2, 0xff});
    EXPECT_EQ("SID:2.0000006402ff", text_of(sid));
    sid = sid_from({4, 255, 0x80, 0x7f});
    EXPECT_EQ("SID:-1.807f", text_of(sid));
    // A length byte beyond the 34 bytes prints the 32 value bytes and no more.
    sid = sid_from({200, 3}, 0xab);
    std::string hex;
    for (int i = 0; i < 32; i++)
        hex += "ab";
    EXPECT_EQ("SID:3." + hex, raw_of(sid));
}

TEST(CredutlSidText, RandomSidsSurviveTheRawForm)
{
    std::mt19937 rng(20240611);
    for (int round = 0; round < 2000; round++) {
        credutl_sid_t sid;
        uint8_t *p = reinterpret_cast<uint8_t *>(&sid);
        for (size_t i = 0; i < sizeof sid; i++)
            p[i] = static_cast<uint8_t>(rng());
        sid.length = static_cast<uint8_t>(2 + rng() % 33);
        std::string text = raw_of(sid);
        credutl_sid_t back;
        memset(&back, 0, sizeof back);
        ASSERT_EQ(0, credutl_str_to_sid(text.c_str(), &back)) << text;
        ASSERT_EQ(bytes_of(sid, sid.length), bytes_of(back, back.length)) << text;
        ASSERT_TRUE(credutl_sid_eq(&sid, &back));
    }
}

TEST(CredutlSidText, ParserIsExactAndCaseSensitive)
{
    credutl_sid_t sid;
    ASSERT_EQ(0, credutl_str_to_sid("UNIX:GID-100", &sid));
    EXPECT_EQ("07 02 00 00 00 64 02", bytes_of(sid, 7));
    EXPECT_EQ("UNIX:GID-100", text_of(sid));
    // atoi reads the number and ignores what follows.
    ASSERT_EQ(0, credutl_str_to_sid("UNIX:UID-12abc", &sid));
    EXPECT_EQ("UNIX:UID-12", text_of(sid));
    ASSERT_EQ(0, credutl_str_to_sid("SID:3.", &sid));
    EXPECT_EQ("02 03", bytes_of(sid, 2));
    // Hex is read two characters at a time until a pair fails.
    ASSERT_EQ(0, credutl_str_to_sid("SID:3.0A0bzz11", &sid));
    EXPECT_EQ("04 03 0a 0b", bytes_of(sid, 4));
    ASSERT_EQ(0, credutl_str_to_sid("SID:3.abc", &sid));
    EXPECT_EQ("04 03 ab 0c", bytes_of(sid, 4));
    ASSERT_EQ(0, credutl_str_to_sid("SID:255.ff", &sid));
    EXPECT_EQ("03 ff ff", bytes_of(sid, 3));

    const char *bad[] = {"UNIX:XID-1", "UNIX:uid-1", "unix:UID-1", "SID:300.ab", "SID:256.", "SID:3",
                         "sid:3.ab",   "nobody",     "NOBODY ",    "DontCare",   "",         "UNIX:",
                         "UNIX:UID",   "SID",        " NOBODY"};
    for (const char *text : bad) {
        credutl_sid_t keep = sid_from({9, 9, 9, 9}, 0x77);
        credutl_sid_t before = keep;
        EXPECT_EQ(1, credutl_str_to_sid(text, &keep)) << "\"" << text << "\"";
        EXPECT_EQ(bytes_of(before), bytes_of(keep)) << "\"" << text << "\"";
    }
}

TEST(CredutlSidText, MoreThan32ValueBytesAreRefused)
{
    std::string full = "SID:3.";
    for (int i = 0; i < 32; i++)
        full += "a5";
    credutl_sid_t sid;
    ASSERT_EQ(0, credutl_str_to_sid(full.c_str(), &sid));
    EXPECT_EQ(34, sid.length);
    EXPECT_EQ(0xa5, sid.value[31]);
    EXPECT_EQ(full, raw_of(sid));

    credutl_sid_t keep = sid_from({2, 1}, 0x11);
    credutl_sid_t before = keep;
    EXPECT_EQ(1, credutl_str_to_sid((full + "01").c_str(), &keep));
    EXPECT_EQ(1, credutl_str_to_sid((full + "0").c_str(), &keep));
    EXPECT_EQ(bytes_of(before), bytes_of(keep));
}

// ---- Equality, hashing and ordering ----

TEST(CredutlSidKeys, HashFollowsTheSignedByteRecurrence)
{
    EXPECT_EQ(0u, credutl_sid_hash_fn(&CREDUTL_SID_NOBODY));
    EXPECT_EQ(1u, credutl_sid_hash_fn(&CREDUTL_SID_DONTCARE));
    credutl_sid_t sid = sid_from({3, 9, 0x55});
    EXPECT_EQ(0u, credutl_sid_hash_fn(&sid)) << "types beyond 3 hash to 0";
    sid = sid_from({2, 3});
    EXPECT_EQ(3u, credutl_sid_hash_fn(&sid));
    // 0x80 counts as -128: 3 + ((3 << 7) ^ 0xFFFFFF80).
    sid = sid_from({3, 3, 0x80});
    EXPECT_EQ(0xFFFFFE03u, credutl_sid_hash_fn(&sid));
    credutl_unix_uid_to_sid(1, &sid);
    EXPECT_EQ(2726626692u, credutl_sid_hash_fn(&sid));
    // Bytes past the length take no part.
    credutl_sid_t a = sid_from({4, 3, 1, 2}, 0x00);
    credutl_sid_t b = sid_from({4, 3, 1, 2}, 0xff);
    EXPECT_EQ(credutl_sid_hash_fn(&a), credutl_sid_hash_fn(&b));
    EXPECT_TRUE(credutl_sid_keycmp_fn(&a, &b));
    EXPECT_TRUE(credutl_sid_eq(&a, &b));
}

TEST(CredutlSidKeys, KeyCompareAndEquality)
{
    credutl_sid_t n1 = sid_from({2, 0});
    credutl_sid_t n2 = sid_from({5, 0, 1, 2, 3});
    EXPECT_TRUE(credutl_sid_keycmp_fn(&n1, &n2)) << "every nobody SID is the same key";
    EXPECT_FALSE(credutl_sid_eq(&n1, &n2));
    credutl_sid_t d = sid_from({2, 1});
    EXPECT_FALSE(credutl_sid_keycmp_fn(&n1, &d));
    credutl_sid_t odd1 = sid_from({3, 7, 1});
    credutl_sid_t odd2 = odd1;
    EXPECT_FALSE(credutl_sid_keycmp_fn(&odd1, &odd2)) << "unknown types never match as keys";
    EXPECT_TRUE(credutl_sid_eq(&odd1, &odd2));
    EXPECT_TRUE(credutl_sid_eq(&odd1, &odd1));
    credutl_sid_t u;
    credutl_sid_t g;
    credutl_unix_uid_to_sid(5, &u);
    credutl_unix_gid_to_sid(5, &g);
    EXPECT_FALSE(credutl_sid_keycmp_fn(&u, &g));
    EXPECT_FALSE(credutl_sid_eq(&u, &g));
    credutl_sid_t f1 = sid_from({4, 3, 1, 2});
    credutl_sid_t f2 = sid_from({5, 3, 1, 2, 0});
    EXPECT_FALSE(credutl_sid_keycmp_fn(&f1, &f2));
}

// ---- Normalisation ----

TEST(CredutlNormalise, PrimaryDroppedSortedAndUnique)
{
    credutl_credentials_t c;
    memset(&c, 0xCC, sizeof c);
    credutl_gid_t gids[] = {7, 20, 0xFFFFFFF0u, 7, 20, 3, 20};
    credutl_init_credentials(1, 7, 7, gids, &c);
    EXPECT_EQ(1u, c.uid);
    EXPECT_EQ(7u, c.gid);
    ASSERT_EQ(3, c.ngroups);
    EXPECT_EQ(3u, c.groups[0]);
    EXPECT_EQ(20u, c.groups[1]);
    EXPECT_EQ(0xFFFFFFF0u, c.groups[2]) << "sorted as unsigned";
    for (int i = 3; i < CREDUTL_NGROUPS_MAX; i++)
        EXPECT_EQ(0u, c.groups[i]);

    // The record's own groups may be normalised in place.
    c = cred_of(0, 5, {9, 8, 9, 5, 1});
    credutl_init_credentials(c.uid, c.gid, c.ngroups, c.groups, &c);
    EXPECT_EQ("1 8 9", groups_of(c));

    std::vector<credutl_gid_t> many;
    for (int i = 32; i > 0; i--)
        many.push_back(static_cast<credutl_gid_t>(i));
    credutl_init_credentials(0, 100, 32, many.data(), &c);
    EXPECT_EQ(32, c.ngroups);
    EXPECT_EQ(1u, c.groups[0]);
    EXPECT_EQ(32u, c.groups[31]);
}

TEST(CredutlNormaliseDeath, MoreThan32GroupsAbort)
{
    credutl_gid_t gids[33] = {0};
    credutl_credentials_t c;
    EXPECT_DEATH(credutl_init_credentials(0, 0, 33, gids, &c), assertion("ngroup <= CREDUTL_NGROUPS_MAX", "credutl"));
}

TEST(CredutlNormalise, SidRecordDropsSpecialAndPrimaryAndSorts)
{
    std::vector<credutl_sid_t> in(40);
    credutl_sid_t usid;
    credutl_sid_t gsid;
    credutl_unix_uid_to_sid(10, &usid);
    credutl_unix_gid_to_sid(10, &gsid);
    credutl_unix_gid_to_sid(300, &in[0]);
    in[1] = gsid;
    in[2] = CREDUTL_SID_NOBODY;
    in[3] = sid_from({2, 1});
    in[4] = sid_from({3, 3, 0x10});
    credutl_unix_gid_to_sid(2, &in[5]);
    in[6] = sid_from({4, 3, 0x01, 0x02}, 0x99);
    credutl_unix_gid_to_sid(300, &in[7]);
    in[8] = sid_from({4, 3, 0x01, 0x01});
    in[9] = sid_from({3, 3, 0x10}, 0x42); // equal to in[4] but for the tail
    credutl_sid_credentials_t sc;
    memset(&sc, 0xDD, sizeof sc);
    credutl_init_sid_credentials(&usid, &gsid, 10, in.data(), &sc);
    std::string got;
    for (int i = 0; i < sc.ngroups; i++)
        got += text_of(sc.groups[i]) + " ";
    EXPECT_EQ("UNIX:GID-2 UNIX:GID-300 SID:3.10 SID:3.0101 SID:3.0102 ", got);
    EXPECT_TRUE(credutl_sid_eq(&usid, &sc.user));
    EXPECT_TRUE(credutl_sid_eq(&gsid, &sc.group));
    credutl_sid_t zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(bytes_of(zero), bytes_of(sc.groups[sc.ngroups]));

    // At most 32 are taken, in input order, before sorting.
    for (int i = 0; i < 40; i++)
        credutl_unix_gid_to_sid(static_cast<credutl_gid_t>(1000 - i), &in[i]);
    credutl_init_sid_credentials(&usid, &gsid, 40, in.data(), &sc);
    ASSERT_EQ(32, sc.ngroups);
    EXPECT_EQ("UNIX:GID-969", text_of(sc.groups[0]));
    EXPECT_EQ("UNIX:GID-1000", text_of(sc.groups[31]));
}

// ---- Membership ----

TEST(CredutlMembership, GroupsAndUsers)
{
    credutl_credentials_t c = cred_of(5, 50, {60, 70});
    EXPECT_TRUE(credutl_has_group(50, &c));
    EXPECT_TRUE(credutl_has_group(70, &c));
    EXPECT_FALSE(credutl_has_group(0, &c)) << "unused slots are no groups";
    c.ngroups = 1;
    EXPECT_FALSE(credutl_has_group(70, &c));

    credutl_sid_credentials_t sc;
    credutl_sid_t foreign = sid_from({4, 3, 0xab, 0xcd});
    credutl_sid_t gsids[2];
    credutl_unix_gid_to_sid(60, &gsids[0]);
    gsids[1] = foreign;
    credutl_sid_t usid;
    credutl_sid_t gsid;
    credutl_unix_uid_to_sid(5, &usid);
    credutl_unix_gid_to_sid(50, &gsid);
    credutl_init_sid_credentials(&usid, &gsid, 2, gsids, &sc);
    EXPECT_TRUE(credutl_has_group_sid(&gsid, &sc));
    EXPECT_TRUE(credutl_has_group_sid(&gsids[0], &sc));
    EXPECT_TRUE(credutl_has_group_sid(&foreign, &sc));
    EXPECT_FALSE(credutl_has_group_sid(&usid, &sc));
    EXPECT_TRUE(credutl_has_user_sid(&usid, &sc));
    EXPECT_FALSE(credutl_has_user_sid(&gsids[0], &sc)) << "a UNIX group SID never names the user";
    EXPECT_FALSE(credutl_has_user_sid(&gsid, &sc));
    EXPECT_TRUE(credutl_has_user_sid(&foreign, &sc)) << "a foreign SID may name a group of the user";
    EXPECT_FALSE(credutl_has_user_sid(&CREDUTL_SID_NOBODY, &sc));

    credutl_whole_credentials_t w;
    w.user = usid;
    w.group = foreign;
    credutl_sid_t wg[2];
    wg[0] = gsids[0];
    credutl_unix_gid_to_sid(61, &wg[1]);
    w.ngroups = 2;
    w.groups = wg;
    EXPECT_TRUE(credutl_has_group_whole(&wg[1], &w));
    EXPECT_TRUE(credutl_has_group_whole(&foreign, &w));
    EXPECT_FALSE(credutl_has_group_whole(&gsid, &w));
    EXPECT_FALSE(credutl_has_user(&wg[0], &w));
    EXPECT_TRUE(credutl_has_user(&foreign, &w));
    EXPECT_TRUE(credutl_has_user(&usid, &w));
    credutl_sid_t dc = CREDUTL_SID_DONTCARE;
    w.user = dc;
    EXPECT_FALSE(credutl_has_user(&dc, &w)) << "don't-care never matches, not even itself";
}

// ---- Conversions ----

TEST(CredutlConvert, NumericAndSidForms)
{
    credutl_credentials_t c = cred_of(0xFFFFFFFEu, 0xFFFFFFFFu, {4, 0xFFFFFFFEu, 0xFFFFFFFFu});
    credutl_sid_credentials_t sc;
    memset(&sc, 0x33, sizeof sc);
    credutl_credentials_to_sid_credentials(&c, &sc);
    EXPECT_EQ("NOBODY", text_of(sc.user));
    EXPECT_EQ("DONTCARE", text_of(sc.group));
    ASSERT_EQ(3, sc.ngroups);
    EXPECT_EQ("UNIX:GID-4", text_of(sc.groups[0]));
    EXPECT_EQ("NOBODY", text_of(sc.groups[1]));
    EXPECT_EQ("DONTCARE", text_of(sc.groups[2]));
    credutl_sid_t zero;
    memset(&zero, 0, sizeof zero);
    EXPECT_EQ(bytes_of(zero), bytes_of(sc.groups[3]));

    // Back: nobody groups (and anything that is no UNIX gid) are dropped,
    // don't-care stays as -1.
    sc.groups[3] = sid_from({3, 3, 1});
    credutl_unix_uid_to_sid(9, &sc.groups[4]);
    sc.ngroups = 5;
    credutl_credentials_t back;
    memset(&back, 0x44, sizeof back);
    credutl_sid_credentials_to_credentials(&sc, &back);
    EXPECT_EQ(0xFFFFFFFEu, back.uid);
    EXPECT_EQ(0xFFFFFFFFu, back.gid);
    EXPECT_EQ("4 -1", groups_of(back));
    EXPECT_EQ(0u, back.groups[2]);

    keep_nobody_groups = 1;
    credutl_sid_credentials_to_credentials(&sc, &back);
    keep_nobody_groups = 0;
    EXPECT_EQ("4 -2 -1 -2 -2", groups_of(back));
}

TEST(CredutlConvert, CopyAndTheDeliberatelyPartialFree)
{
    credutl_string_credentials_t from;
    memset(&from, 0, sizeof from);
    from.user = strdup("example.com/alice");
    from.group = strdup("staff");
    from.ngroups = 2;
    from.groups[0] = strdup("wheel");
    from.groups[1] = strdup("dom\\users");
    credutl_string_credentials_t to;
    memset(&to, 0x55, sizeof to);
    ASSERT_EQ(0, credutl_copy_string_credentials(&from, &to));
    EXPECT_STREQ("example.com/alice", to.user);
    EXPECT_NE(from.user, to.user);
    EXPECT_STREQ("staff", to.group);
    ASSERT_EQ(2, to.ngroups);
    EXPECT_STREQ("dom\\users", to.groups[1]);
    EXPECT_EQ(nullptr, to.groups[2]);

    char *stale_group = to.group;
    credutl_free_string_credentials(&to);
    EXPECT_EQ(nullptr, to.user);
    EXPECT_EQ(stale_group, to.group) << "the group pointer is left as it was";
    EXPECT_EQ(2, to.ngroups);
    credutl_free_string_credentials(&from);
}

TEST(CredutlConvert, CredentialTexts)
{
    char buf[CREDUTL_CREDENTIALS_STR_SIZE];
    strcpy(buf, "cred: ");
    credutl_credentials_t c = cred_of(0, 0xFFFFFFFEu, {});
    EXPECT_STREQ("cred: UID: 0 GID: -2 ", credutl_credentials_to_str(&c, buf)) << "the texts are appended";
    c = cred_of(1, 2, {3, 40});
    buf[0] = '\0';
    EXPECT_EQ(buf, credutl_credentials_to_str(&c, buf));
    EXPECT_STREQ("UID: 1 GID: 2 Groups: 3 40 ", buf);

    credutl_sid_credentials_t sc;
    credutl_credentials_to_sid_credentials(&c, &sc);
    sc.groups[2] = sid_from({3, 3, 0xab});
    sc.ngroups = 3;
    buf[0] = '\0';
    EXPECT_STREQ("UID: UNIX:UID-1 GID: UNIX:GID-2 Groups: UNIX:GID-3 UNIX:GID-40 SID:3.ab ",
                 credutl_sid_credentials_to_str(&sc, buf));
    sc.ngroups = 0;
    buf[0] = '\0';
    EXPECT_STREQ("UID: UNIX:UID-1 GID: UNIX:GID-2 ", credutl_sid_credentials_to_str(&sc, buf));

    // 32 groups of the longest SID text fit the documented size.
    for (int i = 0; i < CREDUTL_NGROUPS_MAX; i++) {
        sc.groups[i] = sid_from({34, 0x80}, 0xff);
    }
    sc.ngroups = CREDUTL_NGROUPS_MAX;
    buf[0] = '\0';
    EXPECT_LT(strlen(credutl_sid_credentials_to_str(&sc, buf)), sizeof buf);
}

// ---- The process's own credentials ----

TEST(CredutlProcess, ReadsTheCredentialsOfThisProcess)
{
    child_result r = run_in_child([]() {
        // The kernel hands the list back sorted; the whole form keeps its
        // duplicates and loses only the first copy of the primary group.
        gid_t list[] = {5, 4, 3, 4, 3};
        if (setgroups(5, list) != 0 || setresgid(4, 4, 4) != 0 || setresuid(0, 1, 0) != 0)
            return 2;
        credutl_credentials_t c;
        if (credutl_get_credentials(&c) != 0)
            return 3;
        printf("num %u %u %s\n", c.uid, c.gid, groups_of(c).c_str());
        credutl_sid_credentials_t sc;
        if (credutl_get_sid_credentials(&sc) != 0)
            return 4;
        char buf[CREDUTL_CREDENTIALS_STR_SIZE] = "";
        printf("sid %s\n", credutl_sid_credentials_to_str(&sc, buf));
        credutl_whole_credentials_t w;
        if (credutl_get_whole_credentials(&w) != 0)
            return 5;
        printf("whole %s %s %d:", text_of(w.user).c_str(), text_of(w.group).c_str(), w.ngroups);
        for (int i = 0; i < w.ngroups; i++)
            printf(" %s", text_of(w.groups[i]).c_str());
        printf("\n");
        credutl_free_whole_credentials(&w);
        printf("freed %d %p\n", w.ngroups, static_cast<void *>(w.groups));
        credutl_sid_t sids[CREDUTL_NGROUPS_MAX];
        int n = credutl_getgroups(1, sids);
        printf("getgroups %d %d", credutl_getgroups(0, nullptr), n);
        for (int i = 0; i < n; i++)
            printf(" %s", text_of(sids[i]).c_str());
        credutl_sid_t *u = credutl_getusid();
        credutl_sid_t *g = credutl_getgsid();
        printf("\nids %s %s %d %d\n", text_of(*u).c_str(), text_of(*g).c_str(), credutl_is_root(),
               credutl_is_privileged());
        if (seteuid(0) != 0)
            return 6;
        printf("again %s %s %d\n", text_of(*credutl_getusid()).c_str(), u == credutl_getusid() ? "same" : "other",
               credutl_is_root());
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("num 1 4 3 5\n"
              "sid UID: UNIX:UID-1 GID: UNIX:GID-4 Groups: UNIX:GID-3 UNIX:GID-5 \n"
              "whole UNIX:UID-1 UNIX:GID-4 4: UNIX:GID-3 UNIX:GID-3 UNIX:GID-4 UNIX:GID-5\n"
              "freed 0 (nil)\n"
              "getgroups 5 5 UNIX:GID-3 UNIX:GID-3 UNIX:GID-4 UNIX:GID-4 UNIX:GID-5\n"
              "ids UNIX:UID-1 UNIX:GID-4 0 0\n"
              "again UNIX:UID-0 same 1\n",
              r.out);
    EXPECT_EQ("", r.err);
}

TEST(CredutlProcess, SetCredentialsChangesEveryId)
{
    child_result r = run_in_child([]() {
        credutl_credentials_t c = cred_of(1, 2, {7, 6, 2});
        int rc = credutl_set_credentials(&c);
        printf("rc %d %s\n", rc, ids_line().c_str());
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.err;
    EXPECT_EQ("rc 0 uid 1,1,1 gid 2,2,2 groups 2 6 7\n", r.out) << "the kernel keeps the list sorted";
    EXPECT_EQ("", r.err);
}

TEST(CredutlProcess, SetEffectiveCredentialsClampsAndKeepsRealIds)
{
    child_result r = run_in_child([]() {
        credutl_credentials_t c = cred_of(1, 2, {});
        for (int i = 0; i < CREDUTL_NGROUPS_MAX; i++)
            c.groups[i] = static_cast<credutl_gid_t>(100 + i);
        c.ngroups = 40;
        int rc = credutl_set_effective_credentials(&c);
        std::string ids = ids_line();
        printf("rc %d ngroups %d %s\n", rc, c.ngroups, ids.substr(0, ids.find(" groups")).c_str());
        printf("count %d\n", getgroups(0, nullptr));
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.err;
    EXPECT_EQ("rc 0 ngroups 32 uid 0,1,0 gid 0,2,0\ncount 32\n", r.out);
}

TEST(CredutlProcess, SetCredentialsDoesNotClamp)
{
    child_result r = run_in_child([]() {
        credutl_credentials_t c = cred_of(1, 2, {3});
        c.ngroups = 33;
        int rc = credutl_set_credentials(&c);
        std::string ids = ids_line();
        printf("rc %d ngroups %d %s\n", rc, c.ngroups, ids.substr(0, ids.find(" groups")).c_str());
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.err;
    EXPECT_EQ("rc 1 ngroups 33 uid 0,0,0 gid 0,0,0\n", r.out);
    EXPECT_THAT(r.err, HasSubstr("setgroups failed: Invalid argument\n"));
}

TEST(CredutlProcess, SetgroupsRefusedAfterDroppingPrivilege)
{
    for (int effective = 0; effective < 2; effective++) {
        child_result r = run_in_child([effective]() {
            if (drop_to_daemon() != 0)
                return 2;
            credutl_credentials_t c = cred_of(0, 0, {});
            int rc = effective ? credutl_set_effective_credentials(&c) : credutl_set_credentials(&c);
            printf("rc %d %s\n", rc, ids_line().c_str());
            return 0;
        });
        ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
        EXPECT_EQ("rc 1 uid 1,1,1 gid 1,1,1 groups 1\n", r.out);
        EXPECT_THAT(r.err, HasSubstr("setgroups failed: Operation not permitted\n"));
        EXPECT_THAT(r.err, ::testing::Not(HasSubstr("setgid")));
    }
}

TEST(CredutlProcess, SetgidAndSetuidFailuresNameTheId)
{
    child_result r = run_in_child([]() {
        credutl_credentials_t c = cred_of(1, 0xFFFFFFFFu, {});
        printf("gid %d\n", credutl_set_credentials(&c));
        printf("egid %d\n", credutl_set_effective_credentials(&c));
        c = cred_of(0xFFFFFFFFu, 3, {});
        printf("uid %d\n", credutl_set_effective_credentials(&c));
        // Without CAP_SETUID only the last step fails.
        if (drop_capability(CAP_SETUID) != 0)
            return 2;
        c = cred_of(1, 3, {4});
        int rc = credutl_set_credentials(&c);
        printf("eperm %d %s\n", rc, ids_line().c_str());
        return 0;
    });
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("gid 1\negid 1\nuid 1\neperm 1 uid 0,0,0 gid 3,3,3 groups 4\n", r.out);
    EXPECT_THAT(r.err, HasSubstr("setgid -1 failed: Invalid argument\n"));
    EXPECT_THAT(r.err, HasSubstr("setuid -1 failed: Invalid argument\n"));
    EXPECT_THAT(r.err, HasSubstr("setuid 1 failed: Operation not permitted\n"));
}

// ---- Names ----

TEST(CredutlNames, CrackFqName)
{
    char dom[16];
    char name[16];
    credutl_crack_fq_name("example.com/alice", dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("example.com", dom);
    EXPECT_STREQ("alice", name);
    credutl_crack_fq_name("DOM\\bob/x", dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("DOM", dom);
    EXPECT_STREQ("bob/x", name);
    credutl_crack_fq_name("carol", dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("<unknown>", dom);
    EXPECT_STREQ("carol", name);
    credutl_crack_fq_name("dom/", dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("dom", dom);
    EXPECT_STREQ("", name);
    credutl_crack_fq_name("a-very-long-domain-name/a-very-long-user-name", dom, 8, name, 6);
    EXPECT_STREQ("a-very-", dom);
    EXPECT_STREQ("a-ver", name);
    credutl_crack_fq_name("/x", dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("", dom);
    EXPECT_STREQ("x", name);
    credutl_crack_fq_name(nullptr, dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("<unknown>", dom);
    EXPECT_STREQ("", name);
}

TEST(CredutlNames, DoubleByteCharacterHidesABackslash)
{
    // In Shift_JIS 0x95 0x5C is one character whose second byte is "\".
    const char text[] = "\x95\x5c" "dom/alice";
    char dom[16];
    char name[16];
    credutl_crack_fq_name(text, dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("dom/alice", name) << "in the C locale 0x5C is a separator";
    if (setlocale(LC_ALL, "ja_JP.SJIS") == nullptr)
        GTEST_SKIP() << "the Shift_JIS test locale is not installed (LOCPATH)";
    credutl_crack_fq_name(text, dom, sizeof dom, name, sizeof name);
    EXPECT_STREQ("\x95\x5c" "dom", dom);
    EXPECT_STREQ("alice", name);
    setlocale(LC_ALL, "C");
}

TEST(CredutlNames, StringEqComparesNamePartsOnly)
{
    const char *s = "dom/x";
    EXPECT_TRUE(credutl_string_eq(s, s));
    EXPECT_TRUE(credutl_string_eq("Alice", "aLICE"));
    EXPECT_TRUE(credutl_string_eq("dom1/alice", "DOM2\\Alice"));
    EXPECT_TRUE(credutl_string_eq("alice", "other/ALICE"));
    EXPECT_FALSE(credutl_string_eq("dom/alice", "dom/alicia"));
    EXPECT_FALSE(credutl_string_eq("dom/alice", "alice/dom"));
    // Null stands for the login name of this process (root).
    EXPECT_TRUE(credutl_string_eq(nullptr, "somewhere/ROOT"));
    EXPECT_TRUE(credutl_string_eq("root", nullptr));
    EXPECT_TRUE(credutl_string_eq(nullptr, nullptr));
    EXPECT_FALSE(credutl_string_eq(nullptr, "daemon"));
}

TEST(CredutlLookup, RealEntriesOnAHostWithoutDomain)
{
    child_result r = in_namespaces(CLONE_NEWUTS, []() {
        if (set_host("box", "(none)") != 0)
            return 2;
        printf("domain %s\n", credutl_get_domain());
        print_pw(credutl_getpwnam("root"));
        credutl_passwd_sid_t *a = credutl_getpwuid(1);
        print_pw(a);
        credutl_passwd_sid_t *b = credutl_getpwnam("nobody");
        print_pw(b);
        printf("same record %d\n", a == b);
        credutl_sid_t sid;
        credutl_unix_uid_to_sid(0, &sid);
        print_pw(credutl_getpwsid(&sid));
        print_gr(credutl_getgrsid(&sid));
        credutl_unix_gid_to_sid(1, &sid);
        print_gr(credutl_getgrsid(&sid));
        print_pw(credutl_getpwsid(&sid));
        print_pw(credutl_getpwsid(&CREDUTL_SID_NOBODY));
        print_gr(credutl_getgrsid(&CREDUTL_SID_DONTCARE));
        sid.length = 8;
        print_gr(credutl_getgrsid(&sid));
        print_gr(credutl_getgrnam("root"));
        print_gr(credutl_getgrgid(65534));
        print_pw(credutl_getpwnam("no-such-user-here"));
        print_gr(credutl_getgrnam("no-such-group-here"));
        // Without a domain here no qualified name can be ours.
        print_pw(credutl_getpwnam("box/root"));
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("domain <unknown>\n"
              "root 0 UNIX:UID-0 | root 0 UNIX:GID-0 | <credutl_fq_passwd unknown> | /root\n"
              "daemon 1 UNIX:UID-1 | daemon 1 UNIX:GID-1 | <credutl_fq_passwd unknown> | /usr/sbin\n"
              "nobody 65534 UNIX:UID-65534 | nogroup 65534 UNIX:GID-65534 | <credutl_fq_passwd unknown> | "
              "/nonexistent\n"
              "same record 1\n"
              "root 0 UNIX:UID-0 | root 0 UNIX:GID-0 | <credutl_fq_passwd unknown> | /root\n"
              "null\n"
              "daemon 1 UNIX:GID-1\n"
              "null\nnull\nnull\nnull\n"
              "root 0 UNIX:GID-0\n"
              "nogroup 65534 UNIX:GID-65534\n"
              "null\nnull\nnull\n",
              r.out);
}

TEST(CredutlLookup, QualifiedNamesAgainstTheHostDomain)
{
    child_result r = in_namespaces(CLONE_NEWUTS, []() {
        if (set_host("box.Example.COM", "nis.invalid") != 0)
            return 2;
        printf("domain %s\n", credutl_get_domain());
        print_pw(credutl_getpwnam("root"));
        print_pw(credutl_getpwnam("example.com/daemon"));
        print_pw(credutl_getpwnam("EXAMPLE.com\\daemon"));
        print_pw(credutl_getpwnam("example.co/daemon"));
        print_pw(credutl_getpwnam("example.comm/daemon"));
        print_pw(credutl_getpwnam("nis.invalid/daemon"));
        print_gr(credutl_getgrnam("Example.Com/daemon"));
        print_gr(credutl_getgrnam("xample.com/daemon"));
        print_gr(credutl_getgrgid(0));
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("domain Example.COM\n"
              "Example.COM/root 0 UNIX:UID-0 | Example.COM/root 0 UNIX:GID-0 | <credutl_fq_passwd unknown> | /root\n"
              "Example.COM/daemon 1 UNIX:UID-1 | Example.COM/daemon 1 UNIX:GID-1 | <credutl_fq_passwd unknown> | "
              "/usr/sbin\n"
              "Example.COM/daemon 1 UNIX:UID-1 | Example.COM/daemon 1 UNIX:GID-1 | <credutl_fq_passwd unknown> | "
              "/usr/sbin\n"
              "null\nnull\nnull\n"
              "Example.COM/daemon 1 UNIX:GID-1\n"
              "null\n"
              "Example.COM/root 0 UNIX:GID-0\n",
              r.out);
}

TEST(CredutlLookup, SystemDomainNameWhenTheHostNameIsPlain)
{
    child_result r = in_namespaces(CLONE_NEWUTS, []() {
        if (set_host("box", "corp.example") != 0)
            return 2;
        printf("domain %s\n", credutl_get_domain());
        print_gr(credutl_getgrnam("CORP.EXAMPLE/root"));
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("domain corp.example\ncorp.example/root 0 UNIX:GID-0\n", r.out);
}

TEST(CredutlLookup, StringCredentialsBothWays)
{
    child_result r = in_namespaces(CLONE_NEWUTS, []() {
        if (set_host("box.example.com", "") != 0)
            return 2;
        credutl_credentials_t c = cred_of(0, 1, {65534, 0xFFFFFFFEu, 3999999, 0});
        credutl_string_credentials_t s;
        if (credutl_credentials_to_string_credentials(&c, &s) != 0)
            return 3;
        printf("%s %s %d:", s.user, s.group, s.ngroups);
        for (int i = 0; i < s.ngroups; i++)
            printf(" %s", s.groups[i]);
        printf("\n");
        credutl_free_string_credentials(&s);

        c = cred_of(3999999, 0xFFFFFFFEu, {});
        if (credutl_credentials_to_string_credentials(&c, &s) != 0)
            return 4;
        printf("%s %s %d\n", s.user, s.group, s.ngroups);
        credutl_free_string_credentials(&s);

        credutl_sid_credentials_t sc;
        credutl_credentials_to_sid_credentials(&c, &sc);
        sc.groups[0] = sid_from({3, 3, 1});
        credutl_unix_gid_to_sid(1, &sc.groups[1]);
        sc.ngroups = 2;
        if (credutl_sid_credentials_to_string_credentials(&sc, &s) != 0)
            return 5;
        printf("%s %s %d %s\n", s.user, s.group, s.ngroups, s.groups[0]);
        credutl_free_string_credentials(&s);

        credutl_string_credentials_t in;
        memset(&in, 0, sizeof in);
        in.user = const_cast<char *>("EXAMPLE.COM/daemon");
        in.group = const_cast<char *>("");
        in.ngroups = 5;
        in.groups[0] = const_cast<char *>("root");
        in.groups[1] = const_cast<char *>("example.org/root");
        in.groups[2] = const_cast<char *>("no-such-group-here");
        in.groups[3] = const_cast<char *>("example.com\\nogroup");
        in.groups[4] = const_cast<char *>("daemon");
        credutl_credentials_t back;
        credutl_string_credentials_to_credentials(&in, &back);
        printf("%d %d %s\n", static_cast<int>(back.uid), static_cast<int>(back.gid), groups_of(back).c_str());
        credutl_string_credentials_to_sid_credentials(&in, &sc);
        char buf[CREDUTL_CREDENTIALS_STR_SIZE] = "";
        printf("%s\n", credutl_sid_credentials_to_str(&sc, buf));
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("example.com/root example.com/daemon 4: example.com/nogroup nobody nobody example.com/root\n"
              "nobody nobody 0\n"
              "nobody nobody 1 example.com/daemon\n"
              "1 -2 0 -2 -2 65534 1\n"
              "UID: UNIX:UID-1 GID: NOBODY Groups: UNIX:GID-0 NOBODY NOBODY UNIX:GID-65534 UNIX:GID-1 \n",
              r.out);
}

// Test users and groups exist only in the child's mount namespace, where
// copies of /etc/passwd and /etc/group are bound over the real ones.
TEST(CredutlLookup, TestUsersInAPrivateMountNamespace)
{
    ks_test::temp_dir dir;
    std::string home(1100, 'h');
    home[0] = '/';
    ks_test::write_file(dir.file("passwd"), ks_test::read_file("/etc/passwd") +
                                                 "ksalice:x:4242:4343:Alice:/home/ksalice:/bin/sh\n"
                                                 "ksorphan:x:4244:4999::" + home + ":/bin/sh\n");
    ks_test::write_file(dir.file("group"), ks_test::read_file("/etc/group") + "ksgroup:x:4343:ksalice\n");
    child_result r = in_namespaces(CLONE_NEWNS | CLONE_NEWUTS, [&]() {
        if (set_host("host.lab.test", "") != 0)
            return 2;
        if (mount(dir.file("passwd").c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0 ||
            mount(dir.file("group").c_str(), "/etc/group", nullptr, MS_BIND, nullptr) != 0) {
            printf("bind mount failed: %s\n", strerror(errno));
            return 3;
        }
        print_pw(credutl_getpwnam("lab.test/ksalice"));
        credutl_passwd_sid_t *pw = credutl_getpwnam("ksorphan");
        if (pw == nullptr)
            return 4;
        printf("%s %u [%s] %zu\n", pw->user.name, pw->group.gid, pw->group.name, strlen(pw->home));
        print_gr(credutl_getgrnam("LAB.TEST/ksgroup"));
        credutl_string_credentials_t s;
        credutl_credentials_t c = cred_of(4242, 4343, {4999, 4343});
        if (credutl_credentials_to_string_credentials(&c, &s) != 0)
            return 5;
        printf("%s %s %s %s\n", s.user, s.group, s.groups[0], s.groups[1]);
        credutl_free_string_credentials(&s);
        return 0;
    });
    SKIP_IF_REFUSED(r);
    ASSERT_EQ(0, r.exit_code()) << r.out << r.err;
    EXPECT_EQ("lab.test/ksalice 4242 UNIX:UID-4242 | lab.test/ksgroup 4343 UNIX:GID-4343 | "
              "<credutl_fq_passwd unknown> | /home/ksalice\n"
              "lab.test/ksorphan 4999 [] 1023\n"
              "lab.test/ksgroup 4343 UNIX:GID-4343\n"
              "lab.test/ksalice lab.test/ksgroup nobody lab.test/ksgroup\n",
              r.out);
    // The machine's own files never saw the test entries.
    EXPECT_EQ(nullptr, getpwnam("ksalice"));
}

} // namespace
