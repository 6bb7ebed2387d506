// The test hook TsmFailCreateInstanceForTesting as the class objects of the
// library see it.
#pragma once

namespace tsm::basedata {

// True (and one failure fewer) while failures of CreateInstance are asked for.
bool TakeCreateFailure();

}  // namespace tsm::basedata
