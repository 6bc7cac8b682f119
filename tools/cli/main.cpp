// kq71: the driver from a shell, through the stand-in runtime.
#include "commands.h"
#include "options.h"
#include "output.h"

#include <QtCore/QCoreApplication>

#include <cstdio>

using namespace kq71cli;

namespace {

bool showDriverDebug = false;

// The driver reports its planning on the debug channel; shown with --debug only.
void messageHandler(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtDebugMsg && !showDriverDebug)
        return;
    std::fprintf(stderr, "%s\n", message.toLocal8Bit().constData());
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    qInstallMessageHandler(messageHandler);
    Options options;
    int code = EXIT_OK;
    if (!parseOptions(app.arguments(), &options, &code))
        return code;
    showDriverDebug = options.debug;

    struct Command {
        const char *name;
        int (*run)(Session &);
        bool needsLink;
    };
    const Command commands[] = {{"registers", cmdRegisters, false}, {"check", cmdCheck, false},
                                {"read", cmdRead, true},            {"write", cmdWrite, true},
                                {"watch", cmdWatch, true},          {"recipe", cmdRecipe, true},
                                {"bridge", cmdBridge, true}};
    const Command *command = nullptr;
    for (const Command &c : commands)
        if (options.command == QLatin1String(c.name))
            command = &c;
    if (!command) {
        printError(false, QString("unknown command \"%1\" (kq71 --help lists them)").arg(options.command));
        return EXIT_USAGE;
    }

    installSignalHandlers();
    Session session(options);
    if ((code = session.loadDriver()) != EXIT_OK)
        return code;
    if (command->needsLink && (code = session.connect()) != EXIT_OK)
        return code;
    return command->run(session);
}
