// kq71: the driver from a shell, through the stand-in runtime.
#include "commands.h"
#include "help.h"
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

int showVersion(const Options &options)
{
    std::printf("kq71 %s\n", KQ71_VERSION);
    kq71rt::DriverLibrary driver;
    QString error;
    const QString path = kq71rt::DriverLibrary::locate(options.driverPath);
    if (!driver.load(path, &error)) {
        printError(false, error);
        return EXIT_DRIVER;
    }
    std::printf("driver %s %s (%s)\n", qPrintable(driver.defaults().name), qPrintable(driver.getVersion()),
                qPrintable(path));
    return EXIT_OK;
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
    const auto find = [&](const QString &name) -> const Command * {
        for (const Command &c : commands)
            if (name == QLatin1String(c.name))
                return &c;
        return nullptr;
    };
    if (options.showVersion)
        return showVersion(options);
    if (options.command == "help") {
        if (options.args.size() > 1 || (options.args.size() == 1 && !find(options.args[0]))) {
            printError(false, QString("help: no command \"%1\" (kq71 help lists them)").arg(options.args.join(' ')));
            return EXIT_USAGE;
        }
        const QString page = options.args.isEmpty() ? QString() : commandHelp(options.args[0]);
        std::fputs(qPrintable(page.isEmpty() ? overviewHelp() : page), stdout);
        return EXIT_OK;
    }
    const Command *command = find(options.command);
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
    code = command->run(session);
    // The simulated PLC's memory is kept only when it could be saved.
    const int saved = session.finish();
    return code != EXIT_OK ? code : saved;
}
