#pragma once

// gv::AnyArguments, which stands beside the functions that take it.
#include <gvtype/anyfunction.h>  // IWYU pragma: export
