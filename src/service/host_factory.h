#pragma once

// Adapter selection by host type. The service takes the factory as a value so that tests can plug
// in adapters of their own.

#include "transport/host.h"

#include <cstdint>
#include <functional>
#include <memory>

using VTHostFactory = std::function<std::unique_ptr<VTHost>(const VTUrl& url, std::int64_t type)>;

// 1 builds a VTGitHubHost; types without an adapter give nullptr ("no adapter": empty replies).
std::unique_ptr<VTHost> VTHostForUrl(const VTUrl& url, std::int64_t type);
