#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "GZLConst_940.h"
#include "support/TQMV.h"
#include "support/TQStatus.h"

TEST(Status, SeverityAndCode) {
  TQStatus ok;
  EXPECT_TRUE(ok.IsOK());
  EXPECT_FALSE(ok.IsError());
  EXPECT_FALSE(ok.IsWarning());

  TQStatus err = TQStatus::Error(GZLStatusCode::NoValidRecords);
  EXPECT_TRUE(err.IsError());
  EXPECT_FALSE(err.IsWarning());
  EXPECT_EQ(err.GetErrorCode(), 130011);

  TQStatus warn = TQStatus::Warning(GZLStatusCode::InvalidRecords);
  EXPECT_TRUE(warn.IsWarning());
  EXPECT_FALSE(warn.IsError());
  EXPECT_FALSE(warn.IsOK());
  EXPECT_FALSE(warn == err);

  // A warning with code 0 is simply success.
  EXPECT_TRUE(TQStatus::Warning(0).IsOK());
  EXPECT_FALSE(TQStatus::Warning(0).IsWarning());

  warn.SetDiscreteData(1, 7);
  EXPECT_EQ(warn.GetDiscreteData(1), 7);
  EXPECT_EQ(warn.GetDiscreteData(99), 0);
}

TEST(MissingValue, NaNCountsAsMissing) {
  EXPECT_TRUE(TQMV::IsMissing(TQMV::Missing));
  EXPECT_TRUE(TQMV::IsMissing(std::numeric_limits<double>::quiet_NaN()));
  EXPECT_FALSE(TQMV::IsMissing(0.0));
  EXPECT_FALSE(TQMV::IsMissing(std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(TQMV::IsMissingOrInfinite(-std::numeric_limits<double>::infinity()));
}
