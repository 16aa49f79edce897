// The short cuts of the per-record path give exactly what the general code gives: the power's
// exponents 0 and 1 (and 2, which must stay pow's own square), the flat lookup table of the category dictionaries, the repeated-key
// short cut of the dictionary pass, and the row writers of single-covariate and factor-only
// effects.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "GZLMemorySource.h"
#include "GZLModelEffect.h"
#include "GZLSettings.h"
#include "data/GZLDesignMatrix.h"
#include "data/GZLDictionary.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

namespace {

std::uint64_t Bits(double x) {
  std::uint64_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

}  // namespace

TEST(FastPaths, PowerOfSmallExponentsEqualsPow) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> moderate(-50.0, 50.0);
  std::vector<double> xs = {0.0, -0.0, 1.0, -1.0, 0.1, -3.0, 1e-160, -1e-170, 1e154, -1.3e154, DBL_MIN, DBL_MAX / 2};
  for (int i = 0; i < 20000; ++i) xs.push_back(moderate(rng));
  for (int i = 0; i < 20000; ++i) {
    // Any finite double, over the whole exponent range.
    const std::uint64_t b = rng();
    double x;
    std::memcpy(&x, &b, sizeof x);
    if (std::isfinite(x) && !TQMV::IsMissing(x)) xs.push_back(x);
  }
  for (double y : {0.0, 1.0, 2.0}) {
    for (double x : xs) {
      const double expected = std::pow(x, y);
      double r = 0.0;
      if (std::isfinite(expected)) {
        ASSERT_TRUE(TQPower::Power(x, y, r)) << x << "^" << y;
        // Bit for bit, the sign of a zero included.
        ASSERT_EQ(Bits(r), Bits(expected)) << x << "^" << y;
      } else {
        ASSERT_FALSE(TQPower::Power(x, y, r)) << x << "^" << y;
        ASSERT_TRUE(TQMV::IsMissing(r));
      }
    }
  }
  // Overflow of the square, and arguments that are missing or infinite, give the missing value.
  const double inf = std::numeric_limits<double>::infinity();
  for (auto [x, y] : {std::pair{1e200, 2.0}, std::pair{-1e155, 2.0}, std::pair{inf, 1.0}, std::pair{-inf, 2.0},
                      std::pair{inf, 0.0}, std::pair{TQMV::Missing, 1.0}, std::pair{TQMV::Missing, 0.0},
                      std::pair{std::nan(""), 2.0}, std::pair{2.0, inf}}) {
    double r = 0.0;
    EXPECT_FALSE(TQPower::Power(x, y, r)) << x << "^" << y;
    EXPECT_TRUE(TQMV::IsMissing(r)) << x << "^" << y;
  }
}

// Columns are the ranks of the distinct keys in lexicographic order, worked out here apart from
// the dictionary; the same with the flat table of the dictionary pass over a declared key range
// that leaves some keys (a = 9) to the tree.
TEST(FastPaths, DictionaryTableAgreesWithRanks) {
  for (const bool ranged : {false, true}) {
    SCOPED_TRACE(ranged);
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> a(-1, 9), b(0, 4), c(3, 7);
    GZLDictionary d;
    d.Setup({0, 0, 0});
    if (ranged) d.SetKeyRange({-1, 0, 3}, {8, 4, 7});
    std::set<std::vector<int>> distinct;
    std::map<std::vector<int>, int> firstSeen;
    for (int i = 0; i < 300; ++i) {
      std::vector<int> key = {a(rng), b(rng), c(rng)};
      if (key[0] == 4 && key[1] == 2) continue;  // a hole inside the box
      const int index = d.Add(key);
      const int expected = firstSeen.emplace(key, static_cast<int>(firstSeen.size())).first->second;
      ASSERT_EQ(index, expected);
      ASSERT_EQ(d.Add(key), expected);  // the repeated key
      distinct.insert(key);
    }
    const std::vector<int> columnOf = d.Finalize();
    ASSERT_TRUE(d.HasTable());
    std::map<std::vector<int>, int> rank;
    for (const auto& key : distinct) rank.emplace(key, static_cast<int>(rank.size()));
    for (const auto& [key, index] : firstSeen) EXPECT_EQ(columnOf[static_cast<std::size_t>(index)], rank[key]);
    // Every key of a box wider than the observed one, absent keys included.
    for (int i = -3; i <= 11; ++i)
      for (int j = -2; j <= 6; ++j)
        for (int k = 1; k <= 9; ++k) {
          const std::vector<int> key = {i, j, k};
          const auto it = rank.find(key);
          ASSERT_EQ(d.Lookup(key), it == rank.end() ? -1 : it->second) << i << " " << j << " " << k;
        }
    EXPECT_EQ(d.Lookup({1, 2}), -1);  // wrong length
    // After Finalize the pass answers columns, the short cut of a repeated key included.
    const std::vector<int> some = *distinct.rbegin();
    EXPECT_EQ(d.Add(some), rank[some]);
    EXPECT_EQ(d.Add(some), rank[some]);

    // A new key after Finalize drops the table until the next Finalize, which ranks it too.
    d.Add({100, 0, 3});
    EXPECT_FALSE(d.HasTable());
    EXPECT_EQ(d.Lookup({100, 0, 3}), static_cast<int>(distinct.size()));  // its first-appearance index
    d.Finalize();
    ASSERT_TRUE(d.HasTable());
    EXPECT_EQ(d.Lookup({100, 0, 3}), static_cast<int>(distinct.size()));  // the last rank
    EXPECT_EQ(d.Lookup(*distinct.begin()), 0);
    EXPECT_EQ(d.Lookup({99, 0, 3}), -1);
  }

  // A box beyond the table's limit keeps the tree, with the same answers.
  GZLDictionary wide;
  wide.Setup({0, 0});
  wide.Add({0, 0});
  wide.Add({2000000, 1});
  wide.Add({-5, 1});
  wide.Finalize();
  EXPECT_FALSE(wide.HasTable());
  EXPECT_EQ(wide.Lookup({-5, 1}), 0);
  EXPECT_EQ(wide.Lookup({0, 0}), 1);
  EXPECT_EQ(wide.Lookup({2000000, 1}), 2);
  EXPECT_EQ(wide.Lookup({0, 1}), -1);
}

// Rows of single-covariate and factor-only effects (their own writers) next to an effect that
// takes the general path: values, and the flag of a row whose product or combination fails.
TEST(FastPaths, RowWritersMatchTheGeneralRules) {
  std::vector<int> vars = {1, 2, 3};
  GZLSettings s;
  s.SetDependent(0);
  s.SetInterceptUse(true);
  s.AddFactor(1, 3);
  s.AddCovariate(2);
  s.AddCovariate(3);
  auto effect = [&](std::vector<int> factors, std::vector<int> covariates) {
    GZLModelEffect e(1, 2, &vars);
    for (int f : factors) e.AddNewFactor(f, false);
    for (int c : covariates) e.AddCovariate(c);
    s.AddModelEffect(e);
  };
  effect({1}, {});      // factor only: columns 1-2 (categories 0 and 2 seen)
  effect({}, {2});      // x: column 3
  effect({}, {3, 3});   // z*z, general path: column 4
  effect({1}, {2});     // A*x, general path: columns 5-6
  GZLMemorySource dictionary({{1, 0, 2.0, 3.0}, {1, 2, -1.5, 0.5}});
  GZLDesignMatrix design(s);
  TQStatus st;
  design.RunDictionaryPass(st, dictionary);
  ASSERT_TRUE(st.IsOK());
  ASSERT_EQ(design.GetNumOfParams(), 7);

  const double inf = std::numeric_limits<double>::infinity();
  GZLMemorySource later({{1, 2, 4.0, -2.0},
                         {1, 1, 4.0, -2.0},       // category 1 never seen: flagged
                         {1, 0, inf, 1.0},        // infinite x: flagged
                         {1, 0, -0.0, 1e200},     // z*z overflows: flagged
                         {1, 0, 1e300, 1e-200}}); // z*z underflows to 0: a valid row
  design.SetRecordSource(&later);
  ASSERT_TRUE(design.BeginPass().IsOK());
  std::vector<std::vector<double>> rows;
  std::vector<bool> invalid;
  while (GZLDesignRow* row = design.GetNextRow()) {
    rows.push_back(row->fValues);
    invalid.push_back(row->fbInvalid);
  }
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(invalid, (std::vector<bool>{false, true, true, true, false}));
  EXPECT_EQ(rows[0], (std::vector<double>{1, 0, 1, 4, 4, 0, 4}));
  EXPECT_EQ(rows[4], (std::vector<double>{1, 1, 0, 1e300, 0, 1e300, 0}));
  // The x column of the row with -0.0 keeps the sign of its zero.
  EXPECT_TRUE(std::signbit(rows[3][3]));
}
