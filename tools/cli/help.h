// Help texts of kq71: the overview and one page per command.
#ifndef KQ71_CLI_HELP_H
#define KQ71_CLI_HELP_H

#include <QtCore/QString>

namespace kq71cli {

// The overview: every command, the common options, the exit status.
QString overviewHelp();
// One command's own usage, options and examples; empty for a command without a page.
QString commandHelp(const QString &command);

} // namespace kq71cli

#endif
