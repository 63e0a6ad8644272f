// SPDX-License-Identifier: MIT
#include "configuration_writer.h"

namespace {

// Inside an unquoted word every character but a space stands for itself, so quotes are needed only for spaces and for a
// first character that would begin something else. This never makes a line longer than it was in the file.
bool needsQuotes(const QByteArray &value)
{
    return value.contains(' ') || QByteArrayView("#;'").contains(value.front());
}

QByteArray word(const QByteArray &value)
{
    return needsQuotes(value) ? '"' + value + '"' : value;
}

QByteArray text(const Directive &directive)
{
    if (!directive.body.isEmpty() || !directive.inner.isEmpty())
        return '<' + directive.name + ">\n" + directive.body + canonicalConfiguration(directive.inner) + "</" +
               directive.name + ">\n";
    QByteArray line = directive.name;
    for (const QByteArray &value : directive.values)
        line += ' ' + word(value);
    return line + '\n';
}

} // namespace

QByteArray canonicalConfiguration(const QList<Directive> &directives)
{
    QByteArray whole;
    for (const Directive &directive : directives)
        whole += text(directive);
    return whole;
}
