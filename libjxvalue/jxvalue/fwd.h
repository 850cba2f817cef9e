#pragma once

namespace JX {
class JXValue;
}
