#include "SublerWrapper.h"

#include "ShellCommand.h"

namespace zandor {

SublerWrapper& SublerWrapper::instance() {
    static SublerWrapper wrapper;
    return wrapper;
}

bool SublerWrapper::appendSource(const QString& source, const QString& destination,
                                 const ToolLimits& limits) {
    return ShellCommand::runSucceeded(
        QStringLiteral("SublerCLI"),
        {QStringLiteral("-source"), source, QStringLiteral("-dest"), destination}, limits);
}

} // namespace zandor
