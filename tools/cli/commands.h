// The commands of kq71; each returns the exit status.
#ifndef KQ71_CLI_COMMANDS_H
#define KQ71_CLI_COMMANDS_H

#include "session.h"

namespace kq71cli {

// Job ids the command line gives the driver, so its frames can be told apart
// from the cyclic reads (id 4, which the driver gives).
enum { CYCLIC_READ_ID = 4, READ_JOB_ID = 21, WRITE_JOB_ID = 22 };

int cmdRegisters(Session &s);
int cmdCheck(Session &s);
int cmdRead(Session &s);
int cmdWrite(Session &s);
int cmdWatch(Session &s);
int cmdRecipe(Session &s);
int cmdBridge(Session &s);

} // namespace kq71cli

#endif
