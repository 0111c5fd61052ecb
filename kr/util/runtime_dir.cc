#include "kr/util/runtime_dir.h"

#include <cstdlib>

namespace kr {

namespace {
constexpr std::string_view kDefaultDir = "/ram";
constexpr const char* kEnvVar = "KR_RUNTIME_DIR";
}  // namespace

std::string runtimeDir() {
  const char* env = std::getenv(kEnvVar);
  if (env == nullptr || *env == '\0') return std::string(kDefaultDir);
  std::string_view dir(env);
  while (!dir.empty() && dir.back() == '/') dir.remove_suffix(1);
  return std::string(dir);
}

std::string runtimePath(std::string_view rest) {
  std::string path = runtimeDir();
  path += rest;
  return path;
}

std::string loaderSocketPath() { return runtimePath("/korasock"); }
std::string storeSocketPath() { return runtimePath("/storereg"); }
std::string logSocketPath() { return runtimePath("/logsocket"); }
std::string logControlSocketPath() { return runtimePath("/logctl"); }
std::string rtracePath() { return runtimePath("/rtrace"); }
std::string crashReportDir() { return runtimePath("/crash"); }

std::string runMarkerPath(std::string_view name) {
  std::string path = runtimePath("/run/");
  path += name;
  return path;
}

}  // namespace kr
