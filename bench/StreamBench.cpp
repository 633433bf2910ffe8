// How much faster does a program get a layer of the plugin for GDAL as a stream for Arrow than as features? And what
// would the stream take if GDAL made it of features? A filter that all rows pass makes it do so.
//
// The layer is opened before the clock starts. The file is in the page cache, so nothing waits for a device. The clock
// is the processor time of the thread; on one processor no other thread reads ahead.
#include <ogr_recordbatch.h>

#define ARROW_C_DATA_INTERFACE  // GDAL's header has the structs, without the guard by which others leave them out

#include <benchmark/benchmark.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Survey.h"

namespace {

// The number of rows.
GIntBig ReadStream(OGRLayer& layer) {
  ArrowArrayStream stream;
  if (!layer.GetArrowStream(&stream, nullptr)) throw std::runtime_error("no stream");
  GIntBig rows = 0;
  int error = 0;
  for (ArrowArray batch; (error = stream.get_next(&stream, &batch)) == 0 && batch.release != nullptr;) {
    rows += batch.length;
    batch.release(&batch);
  }
  stream.release(&stream);
  if (error != 0) throw std::runtime_error("the stream ended with an error");
  return rows;
}

GIntBig ReadFeatures(OGRLayer& layer) {
  layer.ResetReading();
  GIntBig rows = 0;
  while (OGRFeatureUniquePtr(layer.GetNextFeature()) != nullptr) ++rows;
  return rows;
}

// The counters: what GDAL's stream and the features take, divided by what the stream takes. Each iteration runs all
// three once.
void Stream(benchmark::State& state, const char* name) {
  const std::string& path = bench::FileOf(state.range(0), static_cast<std::uint32_t>(state.range(1)));
  const auto dataset = std::unique_ptr<GDALDataset>(GDALDataset::Open(path.c_str(), GDAL_OF_VECTOR));
  OGRLayer* const layer = dataset ? dataset->GetLayerByName(name) : nullptr;
  if (layer == nullptr) throw std::runtime_error("no layer");
  const GIntBig rows = layer->GetFeatureCount();
  const auto seconds = [&](auto read) {
    GIntBig given = 0;
    const double taken = bench::CpuSeconds([&] { given = read(*layer); });
    if (given != rows) throw std::runtime_error("rows are missing");
    return taken;
  };
  seconds(ReadStream);
  std::vector<double> byGdal, byFeatures;
  for ([[maybe_unused]] auto round : state) {
    const double stream = seconds(ReadStream);
    byFeatures.push_back(seconds(ReadFeatures) / stream);
    layer->SetAttributeFilter("FID >= 0");
    byGdal.push_back(seconds(ReadStream) / stream);
    layer->SetAttributeFilter(nullptr);
  }
  state.counters["gdal_times_stream"] = bench::Median(byGdal);
  state.counters["features_times_stream"] = bench::Median(byFeatures);
}
BENCHMARK_CAPTURE(Stream, lines, "lines")->Args({20'000, 10})->Args({20, 100'000})->Iterations(9);
BENCHMARK_CAPTURE(Stream, vertices, "vertices")->Args({20'000, 10})->Args({20, 100'000})->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  CPLSetConfigOption("GDAL_DRIVER_PATH", KESP_PLUGIN_DIR);
  GDALAllRegister();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  GDALDestroy();
}
