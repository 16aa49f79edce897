#pragma once
// Lagrange multiplier (score) tests of a parameter that the fit held fixed, accumulated record
// by record in the post-estimation pass:
// - GZLNormalLMTest: a fixed scale (normal, gamma, inverse Gaussian, Tweedie) or a fixed
//   negative binomial k. The score of theta = log(phi) or log(k) at the fixed value, squared,
//   over its efficient information A - c' I^-1 c (A the information of theta, c its
//   cross-information with the regression parameters, I theirs), on 1 degree of freedom.
// - GZLCTLMTest: a Poisson model against overdispersion (the negative binomial with k = 0):
//   alpha = sum f ((y - mu)^2 - y) / sum f mu^2 over its standard error, a normal deviate, with
//   one-sided and non-directional significances.
// The accumulated state of a test merges with that of another test of the same kind over other
// records (Merge), so that a pass can be split between threads or processes.
#include <memory>
#include <vector>

#include "estimation/GZLHessianMatrix.h"
#include "support/TQBitSet.h"
#include "support/TQMV.h"

class GZLSettings;
class IGZLLogLikeFunc;
class ITQLinkFunc;
class IGZLVarianceFunc;
struct GZLDesignRow;

class IGZLLagrangeMultiplierTest {
 public:
  virtual ~IGZLLagrangeMultiplierTest() = default;
  virtual double GetStatistic() const = 0;
  virtual double GetSignificance() const = 0;
  virtual double GetSigGreaterZero() const = 0;
  virtual double GetSigLessZero() const = 0;
  virtual double GetSigNonDir() const = 0;
  virtual double GetDF() const { return 1.0; }
  // One valid record with its fitted mean (y: the response the family reads); false when the
  // record cannot be used by the test (it is then skipped by the test only).
  virtual bool UpdateForRow(const GZLDesignRow& row, double y, double mu) = 0;
  virtual void Display() const = 0;
};

class GZLCTLMTest final : public IGZLLagrangeMultiplierTest {
 public:
  // nObs: the number of observations of the fit.
  explicit GZLCTLMTest(double nObs) : fN(nObs) {}
  double GetStatistic() const override;
  double GetSignificance() const override { return GetSigGreaterZero(); }
  double GetSigGreaterZero() const override;
  double GetSigLessZero() const override;
  double GetSigNonDir() const override;
  bool UpdateForRow(const GZLDesignRow& row, double y, double mu) override;
  void Merge(const GZLCTLMTest& other) noexcept;
  // alpha and its standard error (missing when they cannot be formed).
  double GetAlpha() const;
  double GetStdError() const;
  void Display() const override;

 private:
  double fAlphaNumerator = 0.0;
  double fStdErrNumerator1 = 0.0;
  double fStdErrNumerator2 = 0.0;
  double fStdErrNumerator3 = 0.0;
  double fDenominator = 0.0;
  double fN;
};

class GZLNormalLMTest final : public IGZLLagrangeMultiplierTest {
 public:
  // The test of the fixed scale phi (and, for the negative binomial, of the fixed k) of a fit
  // with P regression parameters, `inModel` of them in the model. ll, link, var: the family's
  // objects (the log-likelihood object at phi, with k set; the test adds kernels to its
  // sums, which it does not read).
  GZLNormalLMTest(const GZLSettings& settings, int nParams, const TQBitSet& inModel, double phi, double k,
                  IGZLLogLikeFunc& ll, const ITQLinkFunc& link, const IGZLVarianceFunc& var);
  double GetStatistic() const override;
  double GetSignificance() const override;
  double GetSigGreaterZero() const override { return TQMV::Missing; }
  double GetSigLessZero() const override { return TQMV::Missing; }
  double GetSigNonDir() const override { return TQMV::Missing; }
  bool UpdateForRow(const GZLDesignRow& row, double y, double mu) override;
  void Merge(const GZLNormalLMTest& other) noexcept;
  // The score of log(phi) (log(k)) and its efficient information.
  double GetScore() const { return fValue; }
  double GetEfficientInformation() const;
  void Display() const override;

 private:
  double fValue = 0.0;
  bool fbBad = false;
  GZLHessianMatrix fHessian;
  double fTolerance;
  double fValueTested;
  bool fbNegBinLink;
  TQBitSet fInModel;
  std::vector<int> fIndices;
  std::vector<double> fValues;
  IGZLLogLikeFunc* fpLogLike;
  const ITQLinkFunc* fpLink;
  const IGZLVarianceFunc* fpVariance;
};

// The test the settings call for, or null: the scale test of a fixed scale (normal, gamma,
// inverse Gaussian, Tweedie), the k test of a fixed k (negative binomial), the overdispersion
// test of a Poisson model asked for with SetNegBin0.
std::unique_ptr<IGZLLagrangeMultiplierTest> CreateLagrangeMultiplierTest(
    const GZLSettings& settings, int nParams, const TQBitSet& inModel, double phi, double k, double nObs,
    IGZLLogLikeFunc& ll, const ITQLinkFunc& link, const IGZLVarianceFunc& var);
