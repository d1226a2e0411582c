// Environment blocks: edits in heap and area blocks, growth, the copy rule,
// and a block installed as the environment of an executed child.
#include <unistd.h>

#include <gtest/gtest.h>

#include "ks/evutl.h"
#include "ks_test_util.h"

namespace {

// The block's slots in use, one per line; "(null)" for a hole, nothing for the terminator.
std::string entries(const evutl_block_t *b)
{
    std::string s;
    for (uint32_t i = 0; i < b->count; i++)
        s += b->slots[i] ? b->slots[i] + std::string("\n") : i + 1 < b->count ? "(null)\n" : "";
    return s;
}

} // namespace

TEST(Evutl, SetUnsetAndLookUpInHeapAndAreaBlocks)
{
    stg_area_t area = stg_create_area(1024);
    for (stg_area_t where : {STG_AREA_HEAP, area}) {
        evutl_block_t *b = nullptr;
        ASSERT_TRUE(evutl_alloc(where, &b) == 0 && b->slots == nullptr && b->count == 0 && !evutl_getenv(b, "PATH") && evutl_unsetenv(b, "PATH") == 0);
        EXPECT_TRUE(evutl_setenv(b, "PATH=/bin") == 0 && evutl_setenv(b, "A=1") == 0 && evutl_setenv(b, "A=1") == 0);
        char *one = evutl_getenv(b, "A");
        EXPECT_TRUE(evutl_setenv2(b, "A", "1") == 0 && evutl_getenv(b, "A") == one && b->count == 3); // the same: kept
        EXPECT_TRUE(!evutl_getenv(b, "PAT") && !evutl_getenv(b, "PATH=") && evutl_getenv(b, "PATH") == std::string("/bin"));
        EXPECT_TRUE(evutl_setenv(b, "A=2") == 0 && evutl_setenv(b, "NOEQUALS") == 1 && evutl_setenv2(b, "B", nullptr) == 0);
        EXPECT_TRUE(evutl_setenv(b, "=x=y") == 0 && evutl_getenv(b, "") == std::string("x=y") && evutl_setenv(b, "a=3") == 0);
        EXPECT_EQ(entries(b), "PATH=/bin\nA=2\nB=\n=x=y\na=3\n");
        char *gone[] = {evutl_getenv(b, "A") - 2, evutl_getenv(b, "") - 1, evutl_getenv(b, "a") - 2};
        EXPECT_TRUE(evutl_unsetenv(b, "A") == 0 && evutl_unsetenv(b, "") == 0 && evutl_unsetenv(b, "a") == 0 && evutl_unsetenv(b, "Z") == 0);
        EXPECT_TRUE(entries(b) == "PATH=/bin\nB=\n" && b->count == 3);
        for (char *s : gone) // removed strings are the caller's
            stg_free(where == STG_AREA_HEAP ? s : nullptr);
        EXPECT_EQ(evutl_free(b), 0); // the sanitizer build sees a heap block go whole
    }
    // A null block has no variables; a null area gives no block.
    evutl_block_t *none = reinterpret_cast<evutl_block_t *>(8);
    EXPECT_TRUE(!evutl_getenv(nullptr, "A") && evutl_setenv(nullptr, "A=1") == 1 && evutl_setenv2(nullptr, "A", "1") == 1);
    EXPECT_TRUE(evutl_unsetenv(nullptr, "A") == 0 && evutl_free(nullptr) == 0 && evutl_override_default_environ(nullptr) == 1);
    EXPECT_TRUE(evutl_alloc(STG_AREA_NULL, &none) == 1 && none == nullptr && evutl_copy_environ(STG_AREA_NULL, environ, &none) == 1);
    stg_delete_area(&area);
}

// The first addition makes an array of 32 slots; the 31st (count 32) replaces
// it by one of 64, kept until the 63rd (count 64).  A copy of a source of 5
// entries while the process environment has 3 leaves slots 3 and 4 null; a
// source as long as the process environment is copied whole.
TEST(Evutl, TheSlotArrayGrowsAtTheThirtyFirstAdditionAndCopiesReachAsFarAsEnviron)
{
    evutl_block_t *b = nullptr, *c = nullptr;
    std::vector<int> replaced;
    evutl_alloc(STG_AREA_HEAP, &b);
    for (int i = 1; i <= 70; i++) {
        char **slots = b->slots;
        ASSERT_TRUE(evutl_setenv2(b, ("V" + std::to_string(i)).c_str(), "x") == 0);
        ASSERT_TRUE(b->count == static_cast<uint32_t>(i + 1) && !b->slots[i] && evutl_getenv(b, "V1")); // old slots copied
        if (b->slots != slots)
            replaced.push_back(i);
    }
    EXPECT_TRUE(replaced == std::vector<int>({1, 31, 63}) && evutl_free(b) == 0);
    const char *five[] = {"A=1", "B=2", "C=3", "D=4", "E=5", nullptr}, *three[] = {"X=1", "Y=2", "Z=3", nullptr};
    char **own = std::exchange(environ, const_cast<char **>(three));
    EXPECT_TRUE(evutl_copy_environ(STG_AREA_HEAP, const_cast<char **>(five), &b) == 0 && b->count == 6);
    EXPECT_TRUE(entries(b) == "A=1\nB=2\nC=3\n(null)\n(null)\n" && evutl_copy_default_environ(STG_AREA_HEAP, &c) == 0);
    EXPECT_TRUE(entries(c) == "X=1\nY=2\nZ=3\n" && c->slots[0] != three[0] && evutl_free(b) == 0 && evutl_free(c) == 0);
    EXPECT_TRUE(evutl_copy_environ(STG_AREA_HEAP, nullptr, &b) == 0 && b->count == 1 && entries(b).empty() && !evutl_free(b));
    environ = own;
}

// An installed block is the environment of a child started with execve; a
// second install is ignored until the restore.  Removal from the process
// environment moves the later entries down.
TEST(Evutl, InstallRestoreAndTheProcessEnvironment)
{
    auto r = ks_test::run_in_child([] {
        evutl_block_t *b = nullptr, *other = nullptr;
        char **own = environ;
        evutl_copy_default_environ(STG_AREA_HEAP, &b), evutl_alloc(STG_AREA_HEAP, &other);
        evutl_setenv(b, "PATH=/nowhere"), evutl_setenv(b, "A=1"), evutl_setenv(b, "B=two words"), evutl_setenv(b, "C=");
        evutl_unsetenv(b, "LC_ALL"), evutl_setenv(other, "OTHER=1");
        evutl_override_default_environ(b), evutl_override_default_environ(other);
        if (environ != b->slots || getenv("OTHER") || evutl_restore_default_environ() || environ != own || getenv("A"))
            return 1;
        setenv("GONE", "1", 1), setenv("KEPT", "1", 1), evutl_unsetenv_default_environ("GONE");
        if (getenv("GONE") || !getenv("KEPT") || evutl_unsetenv_default_environ("GONE") || evutl_unsetenv_default_environ(nullptr))
            return 1;
        char *argv[] = {const_cast<char *>("env"), nullptr};
        return evutl_override_default_environ(b), execve("/usr/bin/env", argv, environ), 2;
    });
    std::string want; // the parent's environment, PATH replaced in place, LC_ALL gone, the rest appended
    for (char **e = environ; *e; e++)
        want += strncmp(*e, "LC_ALL=", 7) == 0 ? "" : strncmp(*e, "PATH=", 5) == 0 ? "PATH=/nowhere\n" : *e + std::string("\n");
    EXPECT_TRUE(r.exit_code() == 0 && r.out == want + "A=1\nB=two words\nC=\n") << r.out;
}
