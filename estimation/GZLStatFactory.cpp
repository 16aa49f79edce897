#include "estimation/GZLStatFactory.h"

#include <algorithm>
#include <cfloat>
#include <span>
#include <thread>
#include <type_traits>

#include "GZLConst_940.h"
#include "GZLProgress.h"
#include "data/GZLDesignRow.h"
#include "estimation/GZLLinearPredictor.h"
#include "estimation/GZLNomAccumStats.h"
#include "estimation/GZLOrdAccumStats.h"
#include "estimation/GZLRankOne.h"
#include "estimation/GZLSharedPass.h"
#include "estimation/IGZLRowSource.h"
#include "families/GZLLogLikeFunc.h"
#include "families/GZLVarianceFunctions.h"
#include "support/ITQLinkFunc.h"
#include "support/LinkFunctions.h"
#include "support/TQDisplay_940.h"
#include "support/TQMV.h"
#include "support/TQPower.h"

namespace {

// Calls on the concrete function classes are qualified, so that they bind statically; on the
// abstract interfaces they stay virtual.
template <class T>
inline constexpr bool kDynamic = std::is_abstract_v<T>;

template <class L>
inline double LinkMu(const L* link, double eta) {
  int st = 0;
  double mu;
  if constexpr (kDynamic<L>)
    mu = link->GetMu(eta, &st);
  else
    mu = link->L::GetMu(eta, &st);
  return st != 0 ? TQMV::Missing : mu;
}
template <class L>
inline double LinkD1(const L* link, double mu) {
  if constexpr (kDynamic<L>)
    return link->GetFirstDeriv(mu, nullptr);
  else
    return link->L::GetFirstDeriv(mu, nullptr);
}
template <class L>
inline double LinkD2(const L* link, double mu) {
  if constexpr (kDynamic<L>)
    return link->GetSecondDeriv(mu, nullptr);
  else
    return link->L::GetSecondDeriv(mu, nullptr);
}
template <class V>
inline double Variance(const V* var, double mu) {
  if constexpr (kDynamic<V>)
    return var->GetVariance(mu);
  else
    return var->V::GetVariance(mu);
}
template <class V>
inline double VarianceDeriv(const V* var, double mu) {
  if constexpr (kDynamic<V>)
    return var->GetVarianceDeriv(mu);
  else
    return var->V::GetVarianceDeriv(mu);
}
template <class LL>
inline double Kernel(LL* ll, double y, double mu, double f, double s) {
  if constexpr (kDynamic<LL>)
    return ll->AddKernel(y, mu, f, s);
  else
    return ll->LL::AddKernel(y, mu, f, s);
}

inline bool IsCancelled(TQQueryCancel* cancel) { return cancel != nullptr && cancel->IsCancelled(); }

// eta = o + x'beta.
inline double LinearPredictor(const double* x, const double* beta, int n, double offset) noexcept {
  return GZLLinearPredictor(x, beta, static_cast<std::size_t>(n), offset);
}

}  // namespace

GZLStatFactory::GZLStatFactory(IGZLRowSource& source, const GZLSettings& settings)
    : fpSource(&source),
      fpSettings(&settings),
      fDistType(settings.GetDistType()),
      fDistParam(settings.GetDistParam()),
      fNCases(source.GetNumObservations()),
      fNParams(std::max(source.GetNumParameters(), 0)),
      fLinkType(settings.GetLinkType()),
      fLinkParam(settings.GetLinkParam()),
      fLogLikelihood(TQMV::Missing),
      fbBinomial(settings.GetDistType() == TQConst::DistBinomial),
      fInitRedunInfo(fNParams, true) {
  ResetSeparationStats();
  if (!settings.IsValid()) fStatus = TQStatus::Error(GZLStatusCode::InvalidSettings);
  fpLinkFunc.reset(CreateLinkFunction(fLinkType, fLinkParam));
  fpLogLikeFunc.reset(CreateLogLikeFunction(fDistType, fNCases, fDistParam, fLinkType));
  fpVarianceFunc.reset(CreateVarianceFunction(fDistType, fDistParam));
  fbMultinomial = settings.IsMultinomial();
  fbTweedie = fDistType == TQConst::DistTweedie;
  fbExtra = settings.GetScaleType() == GZLConst_940::ScaleMLE ||
            (fDistType == TQConst::DistNegBinomial && settings.GetDistParamType() == GZLConst_940::DistParamMLE);
  fbBinarySingle = settings.IsSingleDependentForBinomial();
  fEventValue = settings.GetDependentRefCateg() == 0 ? 1.0 : 0.0;
  IGZLLogLikeFunc* extraLL = fbExtra ? fpLogLikeFunc.get() : nullptr;
  fpGradientFunc = std::make_unique<GZLGradientVector>(fNParams, extraLL, &settings);
  fpHessianFunc = std::make_unique<GZLHessianMatrix>(fNParams, extraLL, settings);
  if (fStatus.IsOK() && (!fpLinkFunc || !fpLogLikeFunc || (!fbMultinomial && !fpVarianceFunc)))
    fStatus = TQStatus::Error(GZLStatusCode::InternalError);
  fRowWidth = fNParams;
  if (fbMultinomial) {
    const int C = settings.GetDependentSize();
    if (fDistType == TQConst::DistOrdinalMultinomial) {
      fRowWidth = std::max(fNParams - (C - 1), 0);
      fpOrdAccum = std::make_unique<GZLOrdAccumStats>(settings, fNParams);
      if (fStatus.IsOK() && fpOrdAccum->GetLink() == nullptr) fStatus = TQStatus::Error(GZLStatusCode::InternalError);
    } else {
      fRowWidth = C > 1 ? fNParams / (C - 1) : 0;
      fpNomAccum = std::make_unique<GZLNomAccumStats>(fRowWidth, C);
      // Response codes to the model's positions, the reference last.
      std::vector<int> order;
      std::vector<double> counts, offsets;
      if (source.GetResponseCategories(order, counts, offsets)) {
        fResponseMap.assign(static_cast<std::size_t>(std::max(C, 0)), -1);
        for (std::size_t pos = 0; pos < order.size(); ++pos)
          if (order[pos] >= 0 && order[pos] < C) fResponseMap[static_cast<std::size_t>(order[pos])] = static_cast<int>(pos);
        // Positions must end at C - 1 with the reference; a category never observed leaves
        // the reference short of its place, and the records of the last listed one invalid.
        if (static_cast<int>(order.size()) != C) fResponseMap.assign(fResponseMap.size(), -1);
      }
      fpNomAccum->SetResponseMap(fResponseMap);
    }
  }
  fMain.indices.assign(static_cast<std::size_t>(fNParams), 0);
  fMain.values.assign(static_cast<std::size_t>(fNParams), 0.0);
  fMain.gradient = fpGradientFunc.get();
  fMain.hessian = fpHessianFunc.get();
  SetModelIndices();
  fHardwareThreads = std::thread::hardware_concurrency();

  // The compiled record steps, used only when the objects are of the expected classes.
  auto is = [](auto* p, auto* typed) { return p != nullptr && typed != nullptr; };
  ITQLinkFunc* link = fpLinkFunc.get();
  IGZLVarianceFunc* var = fpVarianceFunc.get();
  IGZLLogLikeFunc* ll = fpLogLikeFunc.get();
  if (fDistType == TQConst::DistPoisson && fLinkType == TQConst::LinkLog &&
      is(link, dynamic_cast<TQLinkLog*>(link)) && is(var, dynamic_cast<GZLVariancePoisson*>(var)) &&
      is(ll, dynamic_cast<GZLLogLikePoisson*>(ll)))
    fStepKind = StepPoissonLog;
  else if (fDistType == TQConst::DistBinomial && fLinkType == TQConst::LinkLogit &&
           is(link, dynamic_cast<TQLinkLogit*>(link)) && is(var, dynamic_cast<GZLVarianceBinomial*>(var)) &&
           is(ll, dynamic_cast<GZLLogLikeBinomial*>(ll)))
    fStepKind = StepBinomialLogit;
  else if (fDistType == TQConst::DistNormal && fLinkType == TQConst::LinkIdentity &&
           is(link, dynamic_cast<TQLinkIdentity*>(link)) && is(var, dynamic_cast<GZLVarianceNormal*>(var)) &&
           is(ll, dynamic_cast<GZLLogLikeNormal*>(ll)))
    fStepKind = StepNormalIdentity;
  else if (fDistType == TQConst::DistGamma && fLinkType == TQConst::LinkLog &&
           is(link, dynamic_cast<TQLinkLog*>(link)) && is(var, dynamic_cast<GZLVarianceGamma*>(var)) &&
           is(ll, dynamic_cast<GZLLogLikeGamma*>(ll)))
    fStepKind = StepGammaLog;
}

GZLStatFactory::~GZLStatFactory() = default;

void GZLStatFactory::ResetSeparationStats() noexcept {
  fMain.minP = DBL_MAX;
  fMain.maxP = -DBL_MAX;
  fMain.minPi = DBL_MAX;
}

void GZLStatFactory::PassShare::Clear() noexcept {
  kernelSum.Clear();
  constantSum.Clear();
  kernelBad = constantBad = false;
  minP = DBL_MAX;
  maxP = -DBL_MAX;
  minPi = DBL_MAX;
  counts = PassCounts();
  lead = -1;
}

void GZLStatFactory::PassShare::Merge(const PassShare& other) noexcept {
  kernelSum.Merge(other.kernelSum);
  constantSum.Merge(other.constantSum);
  kernelBad = kernelBad || other.kernelBad;
  constantBad = constantBad || other.constantBad;
  minP = std::min(minP, other.minP);
  maxP = std::max(maxP, other.maxP);
  minPi = std::min(minPi, other.minPi);
  counts.valid += other.counts.valid;
  counts.invalid += other.counts.invalid;
  counts.flagged += other.counts.flagged;
  counts.sumMu += other.counts.sumMu;
  counts.cancelled = counts.cancelled || other.counts.cancelled;
}

void GZLStatFactory::SetRedundancy(const TQBitSet& inModel) {
  fInitRedunInfo = inModel;
  fInitRedunInfo.Resize(fNParams, false);
  SetModelIndices();
  for (GZLOrdAccumStats* a : {fpOrdAccum.get(), fpOrdAccumSecond.get()})
    if (a != nullptr) a->SetRedundancy(fInitRedunInfo);
  for (GZLNomAccumStats* a : {fpNomAccum.get(), fpNomAccumSecond.get()})
    if (a != nullptr) a->SetRedundancy(fInitRedunInfo);
}

bool GZLStatFactory::ComputeCategoryProbabilities(const GZLDesignRow& row, const std::vector<double>& beta,
                                                  std::vector<double>& pi) {
  if (static_cast<int>(beta.size()) < fNParams) return false;
  if (fpOrdAccum)
    return fpOrdAccum->ComputeProbabilities(row.fValues.data(), row.fValues.size(), row.fOffset, beta.data(), pi);
  if (fpNomAccum)
    return fpNomAccum->ComputeProbabilities(row.fValues.data(), row.fValues.size(), row.fOffset, beta.data(), pi);
  return false;
}

const GZLOrdAccumStats* GZLStatFactory::GetOrdinalAccumulator() const noexcept { return fpOrdAccum.get(); }
const GZLNomAccumStats* GZLStatFactory::GetNominalAccumulator() const noexcept { return fpNomAccum.get(); }

void GZLStatFactory::SetModelIndices() {
  fInitRedunInfo.GetSetIndices(fModelIndices);
  fLeadCount = 0;
  while (fLeadCount < static_cast<int>(fModelIndices.size()) &&
         fModelIndices[static_cast<std::size_t>(fLeadCount)] == fLeadCount)
    ++fLeadCount;
  fMain.lead = -1;
}

bool GZLStatFactory::SetDistParam(double k) {
  if (!fpLogLikeFunc || !fpHessianFunc || !fpLinkFunc) return false;
  if (fpVarianceFunc) fpVarianceFunc->SetParam(k);
  fpLogLikeFunc->SetParam(k);
  fpHessianFunc->SetDistParam(k);
  if (fLinkType == TQConst::LinkNegBinomial) fpLinkFunc->SetParam(k);
  fDistParam = k;
  return true;
}

void GZLStatFactory::ResetAccumulators(double phi, bool useExpected) {
  fPhi = phi;
  fMain.Clear();
  if (fpLogLikeFunc) fpLogLikeFunc->Reset(phi);
  fpGradientFunc->Reset(phi);
  fpHessianFunc->Reset(phi, useExpected);
}

template <class Link, class Var, class LL, class Row>
inline bool GZLStatFactory::Step(const Row& row, const double* beta, bool llOnly, bool extra, const Link* link,
                                 Var* var, LL* ll, double& muOut, PassShare& share) {
  const double* x = row.fValues.data();
  const double eta = LinearPredictor(x, beta, fNParams, row.fOffset);
  const double mu = LinkMu(link, eta);
  muOut = mu;
  if (TQMV::IsMissing(mu)) return false;
  double y = row.fResponse;
  if (fbBinarySingle) y = (y == fEventValue) ? 1.0 : 0.0;
  const double f = row.fFreqWeight;
  const double s = row.fScaleWeight;
  // The log-likelihood object starts from an empty sum for every record, so that what it
  // returns is the record's own term; the terms are summed here with compensation. Over a
  // million records a plain running sum carries more rounding noise than the gain of a step
  // near convergence, which step-halving would then refuse.
  ll->ClearSums();
  const double term = Kernel(ll, y, mu, f, s);
  bool valid = !TQMV::IsMissing(term);
  if (valid) share.kernelSum.Add(term);
  if (valid && TQMV::IsMissingOrInfinite(term)) share.kernelBad = true;
  if (valid && !llOnly) {
    const double V = Variance(var, mu);
    const double Vd = VarianceDeriv(var, mu);
    const double g1 = LinkD1(link, mu);
    const double g2 = LinkD2(link, mu);
    if (TQMV::IsMissing(V) || TQMV::IsMissing(Vd) || TQMV::IsMissing(g1) || TQMV::IsMissing(g2)) {
      valid = false;
    } else if (V > 0.0 && g1 != 0.0 && fPhi > 0.0) {
      double pd = 0.0, pd2 = 0.0;
      if (extra) {
        pd = ll->GetParamDeriv(mu, y, f, s);
        pd2 = ll->GetParamDeriv2(mu, y, f, s);
        if (TQMV::IsMissing(pd) || TQMV::IsMissing(pd2)) valid = false;
      }
      if (valid) {
        // The record as its dense leading block x[0 .. lead-1] (intercept and covariates: in the
        // model and seldom zero) and the further parameters in the model with a non-zero design
        // value. The block's width is that of the pass's first such record.
        GZLHessianMatrix& hessian = *share.hessian;
        if (share.lead < 0) {
          share.lead = GZLDenseLead(x, fLeadCount);
          hessian.SetDenseLead(share.lead);
        }
        const int lead = share.lead;
        int* idx = share.indices.data();
        double* val = share.values.data();
        const int m = GZLSparseTail(x, fModelIndices.data(), static_cast<int>(fModelIndices.size()), lead, idx, val);
        const double w = f * s;
        const double r = w * (y - mu) / (g1 * V * fPhi);
        share.gradient->UpdateForRow(x, lead, idx, val, m, r, pd);
        const double W = hessian.RecordWeight(w, y, mu, V, Vd, g1, g2);
        const double c = extra ? hessian.ExtraRowFactor(w, y, mu, V, g1) : 0.0;
        hessian.UpdateForRow(x, idx, val, m, W, c, pd2);
      }
    } else {
      valid = false;
    }
  }
  // A binomial mean on the closed interval [0, 1] is a fitted probability: the record takes part
  // in the separation statistics and never counts as bad (V = 0 at 0 and 1 must not make it so).
  if (fbBinomial && mu >= 0.0 && mu <= 1.0) {
    if (fbBinarySingle) {
      const double p = (y == 1.0) ? mu : 1.0 - mu;
      const double m = std::min(mu, 1.0 - mu);
      if (p < share.minP) share.minP = p;
      if (p > share.maxP) share.maxP = p;
      if (m < share.minPi) share.minPi = m;
    }
    valid = true;
  }
  if (valid && fbComputeConstant) {
    double trials = row.fTrials, events = row.fEvents;
    if (fbBinarySingle) {
      trials = 1.0;
      events = y;
    }
    ll->ClearSums();
    const double constant = ll->AddConstant(y, f, s, trials, events);
    if (TQMV::IsMissing(constant))
      share.constantBad = share.constantBad || TQMV::IsMissing(ll->GetNonKernel());
    else
      share.constantSum.Add(constant);
  }
  return valid;
}

template <class Link, class Var, class LL, class Row>
inline void GZLStatFactory::CountedStep(const Row& row, const double* beta, bool llOnly, const Link* link, Var* var,
                                        LL* ll, PassShare& share) {
  PassCounts& counts = share.counts;
  double mu = TQMV::Missing;
  bool ok = false;
  if (row.fbInvalid || row.fValues.size() != static_cast<std::size_t>(fNParams))
    ++counts.flagged;
  else
    ok = Step(row, beta, llOnly, fbExtra, link, var, ll, mu, share);
  if (ok) {
    ++counts.valid;
    if (!TQMV::IsMissing(mu)) counts.sumMu += mu;
  } else {
    ++counts.invalid;
  }
}

template <class Link, class Var, class LL>
void GZLStatFactory::RunRecords(const double* beta, bool llOnly) {
  const Link* link = static_cast<const Link*>(fpLinkFunc.get());
  Var* var = static_cast<Var*>(fpVarianceFunc.get());
  LL* ll = static_cast<LL*>(fpLogLikeFunc.get());
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    CountedStep(*row, beta, llOnly, link, var, ll, fMain);
    if (IsCancelled(cancel)) {
      fMain.counts.cancelled = true;
      return;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Passes shared with a second thread

bool GZLStatFactory::UseSecondThread() const noexcept {
  return fHardwareThreads >= 2 && fParallelThreshold >= 0.0 && fNCases >= fParallelThreshold && fNParams > 0 &&
         !fbForceGeneric;
}

bool GZLStatFactory::PrepareSecondThread() {
  if (fpSharing && fpSharing->IsStarted() && fpSecond) return true;
  try {
    if (!fpSharing) fpSharing = std::make_unique<GZLSharedPass>(static_cast<std::size_t>(fRowWidth));
    if (!fbMultinomial && !fpSecond) {
      auto second = std::make_unique<PaddedShare>();
      second->share.indices.assign(static_cast<std::size_t>(fNParams), 0);
      second->share.values.assign(static_cast<std::size_t>(fNParams), 0.0);
      fpSecondGradient = std::make_unique<GZLGradientVector>(*fpGradientFunc);
      fpSecondHessian = std::make_unique<GZLHessianMatrix>(*fpHessianFunc);
      second->share.gradient = fpSecondGradient.get();
      second->share.hessian = fpSecondHessian.get();
      fpSecond = std::move(second);
    }
  } catch (...) {
    return false;
  }
  return fpSharing->Start() && (fbMultinomial || fpSecond);
}

template <class Link, class Var, class LL>
bool GZLStatFactory::RunRecordsShared(const double* beta, bool llOnly, bool useExpected) {
  static_assert(!kDynamic<LL>, "the second thread needs its own copy of the log-likelihood object");
  if (!PrepareSecondThread()) return false;
  const Link* link = static_cast<const Link*>(fpLinkFunc.get());
  Var* var = static_cast<Var*>(fpVarianceFunc.get());
  LL* ll = static_cast<LL*>(fpLogLikeFunc.get());
  // The second share starts where the main share was just reset to. The link and variance
  // objects are only read; the log-likelihood object keeps the record's sums, so the second
  // thread gets a copy of its own, on cache lines of its own.
  PassShare& second = fpSecond->share;
  second.Clear();
  if (!llOnly) {
    fpSecondGradient->Reset(fpGradientFunc->GetPhi());
    fpSecondHessian->SetDistParam(fpHessianFunc->GetDistParam());
    fpSecondHessian->Reset(fpHessianFunc->GetPhi(), useExpected);
  }
  struct alignas(kCacheLine) PaddedLL {
    explicit PaddedLL(const LL& from) : ll(from) {}
    LL ll;
  };
  std::unique_ptr<PaddedLL> secondLL;
  try {
    secondLL = std::make_unique<PaddedLL>(*ll);
  } catch (...) {
    return false;
  }
  LL* otherLL = &secondLL->ll;
  auto here = [&](const GZLDesignRow& row) { CountedStep(row, beta, llOnly, link, var, ll, fMain); };
  auto there = [this, beta, llOnly, link, var, otherLL, &second](const GZLFlatRow& row) {
    CountedStep(row, beta, llOnly, link, var, otherLL, second);
  };
  // This thread reads the source, builds the rows and keeps one batch in `keepEvery` for
  // itself: the share that balances that work against the accumulation, whose cost grows with
  // the square of the number of parameters.
  const long keepEvery = fNParams >= 64 ? 2 : 4;
  if (fpSharing->Deal(*fpSource, fpSettings->GetCancelPointer(), here, there, keepEvery))
    fMain.counts.cancelled = true;
  fMain.Merge(second);
  if (!llOnly) {
    fpGradientFunc->Merge(*fpSecondGradient);
    fpHessianFunc->Merge(*fpSecondHessian);
  }
  return true;
}

template <class Accum, class StepFn>
bool GZLStatFactory::RunAccumulator(Accum& main, std::unique_ptr<Accum>& second, const StepFn& step, long keepEvery) {
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (second && UseSecondThread() && PrepareSecondThread()) {
    fbLastPassParallel = true;
    return GZLRunSharedPass(*fpSharing, *fpSource, cancel, main, *second, step, keepEvery);
  }
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    step(main, *row);
    if (IsCancelled(cancel)) return true;
  }
  return false;
}

template <class Link>
bool GZLStatFactory::RunOrdinalRecords(const double* beta) {
  const Link* link = static_cast<const Link*>(fpOrdAccum->GetLink());
  auto step = [link, beta](GZLOrdAccumStats& accum, const auto& row) { accum.UpdateForRow(link, row, beta); };
  // The beta block costs what a binary model's information does; the threshold rows add to it.
  return RunAccumulator(*fpOrdAccum, fpOrdAccumSecond, step, fNParams >= 64 ? 2 : 3);
}

bool GZLStatFactory::RunMultinomialRecords(const double* beta, double phi, bool useExpected, bool llOnly) {
  // The second thread's accumulator, made at the first pass that can use it.
  const bool shared = UseSecondThread();
  try {
    if (shared && fpOrdAccum && !fpOrdAccumSecond) {
      fpOrdAccumSecond = std::make_unique<GZLOrdAccumStats>(*fpSettings, fNParams);
      fpOrdAccumSecond->SetRedundancy(fInitRedunInfo);
    }
    if (shared && fpNomAccum && !fpNomAccumSecond) {
      fpNomAccumSecond = std::make_unique<GZLNomAccumStats>(fRowWidth, fpNomAccum->GetNCategories());
      fpNomAccumSecond->SetResponseMap(fResponseMap);
      fpNomAccumSecond->SetRedundancy(fInitRedunInfo);
    }
  } catch (...) {
    // Without it the pass runs on the calling thread.
  }
  if (fpOrdAccum) {
    fpOrdAccum->Clear(phi, useExpected, llOnly);
    if (fpOrdAccumSecond) fpOrdAccumSecond->Clear(phi, useExpected, llOnly);
    switch (fLinkType) {
      case TQConst::LinkCumLogit: return RunOrdinalRecords<TQLinkCumLogit>(beta);
      case TQConst::LinkCumProbit: return RunOrdinalRecords<TQLinkCumProbit>(beta);
      case TQConst::LinkCumCLogLog: return RunOrdinalRecords<TQLinkCumCLogLog>(beta);
      case TQConst::LinkCumNLogLog: return RunOrdinalRecords<TQLinkCumNLogLog>(beta);
      case TQConst::LinkCumCauchit: return RunOrdinalRecords<TQLinkCumCauchit>(beta);
      default: return RunOrdinalRecords<TQCumulativeLinkFunc>(beta);
    }
  }
  fpNomAccum->Clear(llOnly);
  if (fpNomAccumSecond) fpNomAccumSecond->Clear(llOnly);
  auto step = [beta](GZLNomAccumStats& accum, const auto& row) { accum.UpdateForRow(row, beta); };
  // The calling thread also reads the source and builds the rows: it keeps one batch in three,
  // which balances that work against the blocks of the information (one per pair of logits).
  return RunAccumulator(*fpNomAccum, fpNomAccumSecond, step, 3);
}

bool GZLStatFactory::UpdateForRow(const GZLDesignRow& row, const std::vector<double>& beta, bool llOnly) {
  if (!fStatus.IsOK() || fbMultinomial || static_cast<int>(beta.size()) < fNParams) return false;
  if (row.fbInvalid || row.fValues.size() != static_cast<std::size_t>(fNParams)) return false;
  double mu = TQMV::Missing;
  return Step<ITQLinkFunc, IGZLVarianceFunc, IGZLLogLikeFunc, GZLDesignRow>(
      row, beta.data(), llOnly, fbExtra, fpLinkFunc.get(), fpVarianceFunc.get(), fpLogLikeFunc.get(), mu, fMain);
}

TQStatus GZLStatFactory::RunTweedieBoundaries(double phi) {
  auto* tweedie = dynamic_cast<GZLLogLikeTweedie*>(fpLogLikeFunc.get());
  if (tweedie == nullptr) return TQStatus::Error(GZLStatusCode::InternalError);
  if (!fpSource->RestartPass()) return TQStatus::Error(GZLStatusCode::NewPass);
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (IsCancelled(cancel)) return TQStatus::Error(1);
  tweedie->SetPhi(phi);
  tweedie->StartIndexBoundaryPass();
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    tweedie->AddIndexBoundaryRecord(row->fResponse, row->fScaleWeight);
    if (IsCancelled(cancel)) return TQStatus::Error(1);
  }
  const TQStatus st = tweedie->FinishIndexBoundaryPass();
  if (st.IsOK()) fBoundaryPhi = phi;
  return st;
}

void GZLStatFactory::ComputeLLGradHessian(TQStatus& status, const std::vector<double>& beta, double phi,
                                          bool useExpected, bool llOnly, bool plainMatrices) {
  status.Clear();
  if (!fStatus.IsOK()) {
    status = fStatus;
    return;
  }
  if (static_cast<int>(beta.size()) < fNParams) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return;
  }
  ResetSeparationStats();
  fPhi = phi;
  fpLogLikeFunc->Reset(phi);
  fLogLikelihood = TQMV::Missing;
  fNValid = fNInvalid = fNFlagged = 0;
  fSumMu = 0.0;
  fMain.Clear();
  fbLastPassParallel = false;
  if (fbTweedie) {
    auto* tweedie = dynamic_cast<GZLLogLikeTweedie*>(fpLogLikeFunc.get());
    const bool haveBoundaries = tweedie != nullptr && tweedie->HasIndexBoundaries() && phi == fBoundaryPhi;
    if (fpSettings->GetScaleType() == GZLConst_940::ScaleMLE || !haveBoundaries) {
      status = RunTweedieBoundaries(phi);
      if (!status.IsOK()) return;
    }
    fpLogLikeFunc->Reset(phi);
  }
  if (!llOnly) {
    fpGradientFunc->Reset(phi);
    fpHessianFunc->Reset(phi, useExpected);
  }
  if (!fpSource->RestartPass()) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return;
  }
  if (IsCancelled(fpSettings->GetCancelPointer())) {
    status = TQStatus::Error(1);
    return;
  }

  const double* b = beta.data();
  if (fbMultinomial) {
    const bool cancelled = RunMultinomialRecords(b, phi, useExpected, llOnly);
    const GZLRowTally& tally = fpOrdAccum ? fpOrdAccum->GetTally() : fpNomAccum->GetTally();
    fNValid = tally.valid;
    fNInvalid = tally.invalid;
    fNFlagged = tally.flagged;
    fMain.minP = tally.minP;
    fMain.maxP = tally.maxP;
    fMain.minPi = tally.minPi;
    if (cancelled) {
      status = TQStatus::Error(1);
      return;
    }
    if (fNInvalid > 0 && fNValid == 0) {
      status = TQStatus::Error(GZLStatusCode::AllInvalidRecordsForLinkFunction);
      return;
    }
    fLogLikelihood = fpOrdAccum ? fpOrdAccum->GetLogLikelihood() : fpNomAccum->GetLogLikelihood();
    fLogLikeConstant = fbComputeConstant ? 0.0 : TQMV::Missing;
    if (TQMV::IsMissingOrInfinite(fLogLikelihood)) {
      fLogLikelihood = TQMV::Missing;
      status = TQStatus::Error(GZLStatusCode::CantBuildModel);
      return;
    }
    if (!llOnly) {
      if (fpOrdAccum) {
        fGradient = fpOrdAccum->GetGradient();
        fpOrdAccum->GetInformation(fHessian);
      } else {
        fGradient = fpNomAccum->GetGradient();
        fpNomAccum->GetInformation(fHessian);
      }
    }
    return;
  }
  const bool shared = UseSecondThread();
  // The compiled step over the pass, with the second thread when it is wanted and starts.
  auto run = [&](auto* typedLink, auto* typedVar, auto* typedLL) {
    using Link = std::remove_pointer_t<decltype(typedLink)>;
    using Var = std::remove_pointer_t<decltype(typedVar)>;
    using LL = std::remove_pointer_t<decltype(typedLL)>;
    if (shared && RunRecordsShared<Link, Var, LL>(b, llOnly, useExpected))
      fbLastPassParallel = true;
    else
      RunRecords<Link, Var, LL>(b, llOnly);
  };
  switch (fbForceGeneric ? StepGeneric : fStepKind) {
    case StepPoissonLog:
      run(static_cast<TQLinkLog*>(nullptr), static_cast<GZLVariancePoisson*>(nullptr),
          static_cast<GZLLogLikePoisson*>(nullptr));
      break;
    case StepBinomialLogit:
      run(static_cast<TQLinkLogit*>(nullptr), static_cast<GZLVarianceBinomial*>(nullptr),
          static_cast<GZLLogLikeBinomial*>(nullptr));
      break;
    case StepNormalIdentity:
      run(static_cast<TQLinkIdentity*>(nullptr), static_cast<GZLVarianceNormal*>(nullptr),
          static_cast<GZLLogLikeNormal*>(nullptr));
      break;
    case StepGammaLog:
      run(static_cast<TQLinkLog*>(nullptr), static_cast<GZLVarianceGamma*>(nullptr),
          static_cast<GZLLogLikeGamma*>(nullptr));
      break;
    default:
      RunRecords<ITQLinkFunc, IGZLVarianceFunc, IGZLLogLikeFunc>(b, llOnly);
      break;
  }
  const PassCounts& counts = fMain.counts;
  fNValid = counts.valid;
  fNInvalid = counts.invalid;
  fNFlagged = counts.flagged;
  fSumMu = counts.sumMu;
  if (counts.cancelled) {
    status = TQStatus::Error(1);
    return;
  }
  if (fNInvalid > 0 && fNValid == 0) {
    status = TQStatus::Error(GZLStatusCode::AllInvalidRecordsForLinkFunction);
    return;
  }
  fLogLikelihood = fMain.kernelBad ? TQMV::Missing : fMain.kernelSum.Get();
  fLogLikeConstant = (fbComputeConstant && !fMain.constantBad) ? fMain.constantSum.Get() : TQMV::Missing;
  if (TQMV::IsMissingOrInfinite(fLogLikelihood)) {
    fLogLikelihood = TQMV::Missing;
    status = TQStatus::Error(GZLStatusCode::CantBuildModel);
    return;
  }
  if (!llOnly) {
    if (plainMatrices) {
      fGradient = fpGradientFunc->GetBetaGradient();
      fHessian = fpHessianFunc->GetBetaBlock();
    } else {
      fpGradientFunc->GetGradient(fGradient);
      fpHessianFunc->GetHessian(fHessian);
    }
  }
}

void GZLStatFactory::CheckSeparation(TQStatus& status) const {
  status.Clear();
  TQSymMatrix factor(fHessian);
  std::vector<double> diagonal;
  factor.GetDiagonal(diagonal);
  TQBitSet set;
  factor.LTChol(diagonal, fpSettings->GetTolerance(), set, false);
  bool nearSingular = false;
  for (int i = 0; i < factor.GetNumRows(); ++i) {
    if (factor(i, i) < 0.000316 && fInitRedunInfo.Test(i)) {
      nearSingular = true;
      break;
    }
  }
  if (1.0 - fMain.minP < 0.01)
    status = TQStatus::Warning(GZLStatusCode::CompleteSeparation);
  else if (nearSingular && (fMain.maxP > 0.99 || fMain.minPi < 0.001))
    status = TQStatus::Warning(GZLStatusCode::QuasiCompleteSeparation);
}

void GZLStatFactory::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLStatFactory display start");
  DisplayC("Distribution type", fDistType);
  DisplayD("Distribution parameter", fDistParam);
  DisplayD("Sum of frequency weights in complete cases", fNCases);
  DisplayI("Number of parameters", fNParams);
  DisplayC("Link function type", fLinkType);
  DisplayD("Link function parameter", fLinkParam);
  if (fpLogLikeFunc) fpLogLikeFunc->Display();
  fpGradientFunc->Display();
  fpHessianFunc->Display();
  DisplayD("Log likelihood value", fLogLikelihood);
  DisplayDV("The gradient vector", fGradient, false);
  fHessian.Display("The Hessian matrix: ");
  DisplayI("Number of invalid records", fNInvalid);
  DisplayB("Binomial distribution indicator", fbBinomial);
  DisplayText(1, "The initial redundancy indicators: ");
  fInitRedunInfo.Display();
  DisplayD("Smallest fitted probability of the observed category", fMain.minP);
  DisplayD("Largest fitted probability of the observed category", fMain.maxP);
  DisplayD("Smallest fitted probability", fMain.minPi);
  if (fpOrdAccum) fpOrdAccum->Display();
  if (fpNomAccum) fpNomAccum->Display();
  if (fpSharing) fpSharing->Display();
  DisplayText(1, "GZLStatFactory display end");
}

// ---------------------------------------------------------------------------------------------
// Passes of their own

void GZLStatFactory::ComputeStartingRegression(TQStatus& status, double phi, TQSymMatrix& augmented, int& used,
                                               int& seen) {
  status.Clear();
  used = seen = 0;
  augmented = TQSymMatrix(fNParams + 1);
  if (!fStatus.IsOK()) {
    status = fStatus;
    return;
  }
  if (!fpVarianceFunc) {
    status = TQStatus::Error(GZLStatusCode::CantBuildModel);
    return;
  }
  if (!fpSource->RestartPass()) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return;
  }
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (IsCancelled(cancel)) {
    status = TQStatus::Error(1);
    return;
  }
  const ITQLinkFunc* link = fpLinkFunc.get();
  const IGZLVarianceFunc* var = fpVarianceFunc.get();
  const std::size_t P = static_cast<std::size_t>(fNParams);
  // The record in sparse form with the working response appended as entry P.
  std::vector<int> idx(P + 1);
  std::vector<double> val(P + 1);
  std::vector<std::size_t> rowStart(P + 1);
  for (std::size_t i = 0; i <= P; ++i) rowStart[i] = TQSymMatrix::Index(static_cast<int>(i), 0);
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    ++seen;
    if (!row->fbInvalid && row->fValues.size() == P) {
      double y = row->fResponse;
      double n = 1.0;
      if (fbBinarySingle)
        y = (y == fEventValue) ? 1.0 : 0.0;
      else if (fbBinomial && !TQMV::IsMissing(row->fTrials))
        n = row->fTrials;
      const double mu0 = fbBinomial ? (n * y + 0.5) / (n + 1.0) : y;
      const double eta0 = link->GetEta(mu0);
      const double V = var->GetVariance(mu0);
      const double g1 = link->GetFirstDeriv(mu0, nullptr);
      if (!TQMV::IsMissing(eta0) && !TQMV::IsMissing(V) && !TQMV::IsMissing(g1) && V > 0.0 && g1 != 0.0 &&
          phi > 0.0) {
        const double inv = 1.0 / g1;
        const double inv2 = inv * inv;
        if (!TQMV::IsMissingOrInfinite(inv2) && inv2 != 0.0) {
          const double z = (eta0 - row->fOffset) + (y - mu0) * g1;
          const double W = row->fFreqWeight * row->fScaleWeight / (phi * V) * inv2;
          if (!TQMV::IsMissingOrInfinite(z) && !TQMV::IsMissingOrInfinite(W)) {
            const double* x = row->fValues.data();
            int m = 0;
            for (std::size_t j = 0; j < P; ++j) {
              idx[static_cast<std::size_t>(m)] = static_cast<int>(j);
              val[static_cast<std::size_t>(m)] = x[j];
              m += (x[j] != 0.0);
            }
            idx[static_cast<std::size_t>(m)] = static_cast<int>(P);
            val[static_cast<std::size_t>(m)] = z;
            m += (z != 0.0);
            GZLSparseRankOneUpdate(augmented.Data(), rowStart.data(), idx.data(), val.data(), m, W);
            ++used;
          }
        }
      }
    }
    if (IsCancelled(cancel)) {
      status = TQStatus::Error(1);
      return;
    }
  }
}

double GZLStatFactory::ComputeInitialScale(TQStatus& status, const std::vector<double>& beta, int& skipped) {
  status.Clear();
  skipped = 0;
  if (!fStatus.IsOK()) {
    status = fStatus;
    return 0.0;
  }
  if (!fpVarianceFunc || static_cast<int>(beta.size()) < fNParams) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return 0.0;
  }
  if (!fpSource->RestartPass()) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return 0.0;
  }
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (IsCancelled(cancel)) {
    status = TQStatus::Error(1);
    return 0.0;
  }
  const ITQLinkFunc* link = fpLinkFunc.get();
  const IGZLVarianceFunc* var = fpVarianceFunc.get();
  const std::size_t P = static_cast<std::size_t>(fNParams);
  double sum = 0.0;
  int counted = 0, seen = 0;
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    ++seen;
    bool ok = false;
    if (!row->fbInvalid && row->fValues.size() == P) {
      const double y = row->fResponse;
      const double etaY = link->GetEta(y);
      const double V = var->GetVariance(y);
      const double g1 = link->GetFirstDeriv(y, nullptr);
      if (!TQMV::IsMissing(etaY) && !TQMV::IsMissing(V) && !TQMV::IsMissing(g1) && V > 0.0 && g1 != 0.0) {
        const double inv = 1.0 / g1;
        const double inv2 = inv * inv;
        if (!TQMV::IsMissingOrInfinite(inv2) && inv2 != 0.0) {
          const double r = etaY - LinearPredictor(row->fValues.data(), beta.data(), fNParams, row->fOffset);
          sum += r * r * (row->fFreqWeight * row->fScaleWeight / V) * inv2;
          ++counted;
          ok = true;
        }
      }
    }
    if (!ok) ++skipped;
    if (IsCancelled(cancel)) {
      status = TQStatus::Error(1);
      return 0.0;
    }
  }
  if (seen > 0 && counted == 0) {
    status = TQStatus::Error(GZLStatusCode::CantBuildModel);
    return 0.0;
  }
  if (sum == 0.0 || counted == 0 || TQMV::IsMissingOrInfinite(sum)) return 0.0;
  return sum / counted;
}

namespace {

// The f s weighted cross-products of the complete rows of a pass (with a leading unit column
// when asked), as one thread's share: mergeable from its value alone.
struct CrossProductShare {
  TQSymMatrix xx;
  std::vector<double> x;  // the leading 1, then the row's values
  std::size_t first = 0;
  std::size_t width = 0;
  CrossProductShare(std::size_t rowWidth, bool leadingOne)
      : xx(static_cast<int>(rowWidth + (leadingOne ? 1 : 0))),
        x(rowWidth + (leadingOne ? 1 : 0), 1.0),
        first(leadingOne ? 1 : 0),
        width(rowWidth) {}
  template <class Row>
  void Add(const Row& row) noexcept {
    if (row.fbInvalid || row.fValues.size() != width) return;
    const double* v = row.fValues.data();
    const double w = row.fFreqWeight * row.fScaleWeight;
    if (first == 0) {
      xx.UpdateXX(std::span<const double>(v, width), w);
      return;
    }
    std::copy(v, v + width, x.begin() + 1);
    xx.UpdateXX(x, w);
  }
  void Merge(const CrossProductShare& other) noexcept { xx.ComputeAXpY(1.0, other.xx); }
};

}  // namespace

void GZLStatFactory::ComputeCrossProducts(TQStatus& status, TQSymMatrix& crossProducts, bool leadingOne) {
  status.Clear();
  const std::size_t width = static_cast<std::size_t>(fRowWidth);
  crossProducts = TQSymMatrix(static_cast<int>(width + (leadingOne ? 1 : 0)));
  if (!fpSource->RestartPass()) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return;
  }
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (IsCancelled(cancel)) {
    status = TQStatus::Error(1);
    return;
  }
  CrossProductShare main(width, leadingOne);
  bool cancelled = false;
  fbLastPassParallel = false;
  if (UseSecondThread() && PrepareSecondThread()) {
    fbLastPassParallel = true;
    CrossProductShare second(width, leadingOne);
    auto step = [](CrossProductShare& share, const auto& row) { share.Add(row); };
    cancelled = GZLRunSharedPass(*fpSharing, *fpSource, cancel, main, second, step, 2);
  } else {
    while (const GZLDesignRow* row = fpSource->GetNextRow()) {
      main.Add(*row);
      if (IsCancelled(cancel)) {
        cancelled = true;
        break;
      }
    }
  }
  if (cancelled) {
    status = TQStatus::Error(1);
    return;
  }
  crossProducts = std::move(main.xx);
}

double GZLStatFactory::ComputeResidualSS(TQStatus& status, const std::vector<double>& beta) {
  status.Clear();
  if (static_cast<int>(beta.size()) < fNParams) {
    status = TQStatus::Error(GZLStatusCode::InternalError);
    return TQMV::Missing;
  }
  if (!fpSource->RestartPass()) {
    status = TQStatus::Error(GZLStatusCode::NewPass);
    return TQMV::Missing;
  }
  TQQueryCancel* cancel = fpSettings->GetCancelPointer();
  if (IsCancelled(cancel)) {
    status = TQStatus::Error(1);
    return TQMV::Missing;
  }
  const std::size_t P = static_cast<std::size_t>(fNParams);
  double ss = 0.0;
  while (const GZLDesignRow* row = fpSource->GetNextRow()) {
    if (!row->fbInvalid && row->fValues.size() == P) {
      const double fitted = LinearPredictor(row->fValues.data(), beta.data(), fNParams, row->fOffset);
      const double y = row->fResponse;
      if (!TQPower::AlmostEqual(y, fitted, 8.0)) {
        const double r = y - fitted;
        ss += row->fFreqWeight * row->fScaleWeight * r * r;
      }
    }
    if (IsCancelled(cancel)) {
      status = TQStatus::Error(1);
      return TQMV::Missing;
    }
  }
  return ss;
}
