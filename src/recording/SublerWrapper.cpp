#include "SublerWrapper.h"

#include "ShellCommand.h"

namespace zandor {

SublerWrapper& SublerWrapper::instance() {
    static SublerWrapper wrapper;
    return wrapper;
}

Error SublerWrapper::appendSource(const QString& source, const QString& destination,
                                  const ToolLimits& limits) {
    return ShellCommand::runSucceeded(
        QStringLiteral("SublerCLI"),
        {QStringLiteral("-source"), source, QStringLiteral("-dest"), destination}, limits);
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
    return ShellCommand::runSucceeded(QStringLiteral("SublerCLI"), arguments, limits);
}

} // namespace zandor
