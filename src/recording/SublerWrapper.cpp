#include "SublerWrapper.h"

#include "ShellCommand.h"
#include "base/ToolExit.h"

#include <cerrno>

namespace zandor {

SublerWrapper& SublerWrapper::instance() {
    static SublerWrapper wrapper;
    return wrapper;
}

namespace {

// The merging tool's failure; a full disk as the system says it, so that it is told as every save
// that meets one is.
Error merged(const QStringList& arguments, const QString& destination, const ToolLimits& limits) {
    Error error = ShellCommand::runSucceeded(QStringLiteral("SublerCLI"), arguments, limits);
    if (error && error.code() == tool_exit::DiskFull) {
        return Error::system("merge", destination.toStdString(), ENOSPC);
    }
    return error;
}

} // namespace

Error SublerWrapper::appendSource(const QString& source, const QString& destination,
                                  const ToolLimits& limits) {
    return merged({QStringLiteral("-source"), source, QStringLiteral("-dest"), destination}, destination,
                  limits);
}

Error SublerWrapper::appendSources(const std::vector<NamedSource>& sources, const QString& destination,
                                   const ToolLimits& limits) {
    QStringList arguments;
    for (const NamedSource& source : sources) {
        arguments << QStringLiteral("-source") << source.path << QStringLiteral("-title") << source.title
                  << QStringLiteral("-language") << source.language << QStringLiteral("-default")
                  << (source.isDefault ? QStringLiteral("yes") : QStringLiteral("no"));
    }
    arguments << QStringLiteral("-dest") << destination;
    return merged(arguments, destination, limits);
}

} // namespace zandor
