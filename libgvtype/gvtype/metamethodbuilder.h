#pragma once

// gv::MetaMethodBuilder, which stands beside what it builds.
#include <gvtype/metamethod.h>  // IWYU pragma: export
