#include "base/SystemSoundCheck.h"

namespace Zelmar {
namespace HW {

bool isValidSystemSound(int sound)
{
    return sound >= 0 && sound <= 9;
}

} // namespace HW
} // namespace Zelmar
