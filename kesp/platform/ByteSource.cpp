#include "kesp/platform/ByteSource.h"

namespace kesp {

ByteSource::~ByteSource() = default;  // here, so that the class has its table in the library

}  // namespace kesp
