// The shared instance's internals, for the SDK's own tools and tests.
#pragma once

#include <memory>

#include "tellora/tellora.hpp"

namespace tellora {

class TLRTelloraImpl;

struct TLRTelloraAccess {
  // The instance behind the facade. Use it on the SDK's event loop only.
  static std::shared_ptr<TLRTelloraImpl> impl(TLRTellora& tellora);
};

}  // namespace tellora
