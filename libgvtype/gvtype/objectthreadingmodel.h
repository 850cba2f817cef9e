#pragma once

// gv::ObjectThreadingModel, which stands beside the calls that it governs.
#include <gvtype/metacall.h>  // IWYU pragma: export
