// Formatting operations:
// - a 4000 x 3000 JPEG photo reduced to 160 x 120 by reduceImage (decoded at
//   a reduced scale) against a plain full-size decode followed by scaling;
//   the summary prints the time ratio and the peak memory of one reduction
//   by each way (measured in a child process, so that neither sees the
//   other's high-water mark);
// - one call of a text operation through the method table (an invocation,
//   as a device description binds it) against the direct call.

#include <benchmark/benchmark.h>
#include <gdk-pixbuf/gdk-pixbuf.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <string>

#include "formatting/FormattingMethods.h"
#include "formatting/Invocation.h"
#include "platform/Registry.h"

namespace pc {
namespace {

const Data& photo() {
  static const Data jpeg = [] {
    const int width = 4000, height = 3000;
    GdkPixbuf* pixbuf = gdk_pixbuf_new(GDK_COLORSPACE_RGB, FALSE, 8, width, height);
    const int stride = gdk_pixbuf_get_rowstride(pixbuf);
    guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        guchar* p = pixels + y * stride + x * 3;
        p[0] = static_cast<guchar>(x * 255 / width);
        p[1] = static_cast<guchar>(y * 255 / height);
        p[2] = static_cast<guchar>((x * y) >> 8);
      }
    gchar* buffer = nullptr;
    gsize length = 0;
    gdk_pixbuf_save_to_buffer(pixbuf, &buffer, &length, "jpeg", nullptr, "quality", "90", nullptr);
    g_object_unref(pixbuf);
    Data data(buffer, length);
    g_free(buffer);
    return data;
  }();
  return jpeg;
}

std::shared_ptr<FormattingMethods> methods() {
  static auto instance = [] {
    auto created = ClassRegistry::createAs<FormattingMethods>("FormattingMethods");
    created->initWithDictionary(std::nullopt, nullptr, nullptr);
    return created;
  }();
  return instance;
}

Value reduceByScaledDecode() { return methods()->reduceImage(photo(), 160, 120, 0); }

Value reduceByFullDecode() {
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  gdk_pixbuf_loader_write(loader, photo().bytes().data(), photo().length(), nullptr);
  gdk_pixbuf_loader_close(loader, nullptr);
  GdkPixbuf* scaled = gdk_pixbuf_scale_simple(gdk_pixbuf_loader_get_pixbuf(loader), 160, 120,
                                              GDK_INTERP_BILINEAR);
  g_object_unref(loader);
  gchar* buffer = nullptr;
  gsize length = 0;
  gdk_pixbuf_save_to_buffer(scaled, &buffer, &length, "jpeg", nullptr, "quality", "85", nullptr);
  g_object_unref(scaled);
  Data data(buffer, length);
  g_free(buffer);
  return data;
}

void BM_ReduceImage_ScaledDecode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(reduceByScaledDecode());
}
BENCHMARK(BM_ReduceImage_ScaledDecode)->Unit(benchmark::kMillisecond);

void BM_ReduceImage_FullDecode(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(reduceByFullDecode());
}
BENCHMARK(BM_ReduceImage_FullDecode)->Unit(benchmark::kMillisecond);

const Value& contactName() {
  static const Value name("Bartholomew Montgomery-Smith of Upper Wickham");
  return name;
}

void BM_MaxLength_Direct(benchmark::State& state) {
  auto target = methods();
  for (auto _ : state) benchmark::DoNotOptimize(target->maxLength(contactName(), 20));
}
BENCHMARK(BM_MaxLength_Direct);

void BM_MaxLength_MethodTable(benchmark::State& state) {
  auto invocation = Invocation::invocationWithTarget(methods(), "maxLength::");
  invocation->setArgument(20, 1);
  for (auto _ : state) benchmark::DoNotOptimize(invocation->invokeWithValue(contactName()));
}
BENCHMARK(BM_MaxLength_MethodTable);

// Kilobytes by which one call raises the resident set above where it started.
long peakKilobytesOf(const std::function<void()>& work) {
  int channel[2];
  if (pipe(channel) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    long pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    const long startKilobytes = resident * (sysconf(_SC_PAGESIZE) / 1024);
    work();
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const long peak = usage.ru_maxrss - startKilobytes;
    if (write(channel[1], &peak, sizeof peak) != sizeof peak) _exit(1);
    _exit(0);
  }
  close(channel[1]);
  long peak = -1;
  if (read(channel[0], &peak, sizeof peak) != sizeof peak) peak = -1;
  close(channel[0]);
  waitpid(child, nullptr, 0);
  return peak;
}

// Collects the CPU time per iteration of each run and prints the ratios.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs)
      if (!run.error_occurred) _time[run.benchmark_name()] = run.GetAdjustedCPUTime();
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double scaled = _time["BM_ReduceImage_ScaledDecode"], full = _time["BM_ReduceImage_FullDecode"];
    if (scaled > 0 && full > 0) {
      std::printf("\nReducing a 4000 x 3000 JPEG to 160 x 120 (CPU time, peak memory above start):\n");
      std::printf("  decoded at reduced scale  %8.2f ms  %7ld KB\n", scaled,
                  peakKilobytesOf([] { reduceByScaledDecode(); }));
      std::printf("  full decode, then scaled  %8.2f ms  %7ld KB\n", full,
                  peakKilobytesOf([] { reduceByFullDecode(); }));
      std::printf("  speed-up %.1fx (target: at least 4x)\n", full / scaled);
    }
    const double direct = _time["BM_MaxLength_Direct"], table = _time["BM_MaxLength_MethodTable"];
    if (direct > 0 && table > 0)
      std::printf("\nmaxLength:: through the method table / direct call: %.1f ns / %.1f ns = %.2f "
                  "(target: below 1.5)\n", table, direct, table / direct);
  }

 private:
  std::map<std::string, double> _time;
};

}  // namespace
}  // namespace pc

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  pc::photo();  // made before any timing
  pc::SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
