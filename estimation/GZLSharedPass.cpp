#include "estimation/GZLSharedPass.h"

#include "support/TQDisplay_940.h"

void GZLSharedPass::Display() const {
  using namespace TQDisplay_940;
  DisplayText(1, "GZLSharedPass display start");
  DisplayI("Number of design values per row", static_cast<int>(fNValues));
  DisplayI("Rows per batch", GZLRowPipeline::kRowsPerBatch);
  DisplayI("Batches in flight", GZLRowPipeline::kBatchesInFlight);
  DisplayB("Second thread running", IsStarted());
  DisplayText(1, "GZLSharedPass display end");
}
