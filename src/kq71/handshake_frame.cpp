#include "frames.h"

// No bytes to send and no reply awaited: a zeroed job with an empty register.
void buildHandshakeFrame(FRAME_PRO &out)
{
    out = FRAME_PRO();
}
