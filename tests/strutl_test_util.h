// Shared by the strutl_*_test.cpp programs: the real locales, and Shift_JIS
// characters whose second byte is a separator.
#pragma once

#include <algorithm>
#include <clocale>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ks/stg.h"
#include "ks/strutl.h"
#include "ks_test_util.h"

inline void use_locale(const char *name) { ASSERT_NE(setlocale(LC_ALL, name), nullptr) << name; }

// Second byte '\\' (0x5C): katakana SO and "table"; second byte '|' (0x7C):
// katakana PO.
const std::string kSo = "\x83\x5c", kHyo = "\x95\x5c", kPo = "\x83\x7c";
