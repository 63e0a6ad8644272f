// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QList>

#include <variant>

/// What OpenVPN, run as root, is allowed to be told. Pure functions: bytes in, values out, no I/O.
///
/// The reader sees exactly the words that OpenVPN 2.6 would see, or refuses. The rules, and where OpenVPN has them:
///  - A line is read into 257 bytes (options.c, read_config_file()), a line of an inline body or of a connection block
///    into 256 (read_inline_file(), read_config_string()), and the rest of a longer one becomes a line of its own. So
///    no line here has more than 254 bytes, in any place.
///  - fgets() keeps a NUL, every later function stops at it: what follows would be hidden. No control bytes, then,
///    comments included; a tab is a space, and a CR may stand before its LF.
///  - Words (parse_line()): a closing quote ends the word although no space follows; inside an unquoted word quotes are
///    ordinary; '#' and ';' begin a comment only where a word could begin; beyond 16 words the rest is silently
///    dropped, here it is refused. Backslashes and bytes beyond ASCII are refused outside comments.
///  - One leading "--" is dropped (bypass_doubledash()), before a lone "<name>" begins an inline body
///    (check_inline_file()), before "setenv opt X" becomes X (add_option()), each of them once.
///  - A body ends at a line that begins with its closing tag, whatever follows; here nothing may. A connection block is
///    collected first and cut into lines later, so a block inside one is refused.
///  - Several directives act while they are read (`log` truncates its file, `cd`, `providers` and `plugin` load code
///    even where no script may run), so nothing is left for OpenVPN's own checks: what is not listed is refused.
struct Directive {
    QByteArray name;
    QList<QByteArray> values;
    int line = 0;           ///< in the file, from 1; no part of the comparison
    QByteArray body;        ///< of an inline block: armour alone, re-wrapped, lines end in LF; empty otherwise
    QList<Directive> inner; ///< of a `connection` block

    bool operator==(const Directive &other) const;
};

struct Configuration {
    QList<Directive> directives; ///< in the file's order, which carries meaning
    QList<Directive> dropped;    ///< known, without use or unwanted here: left out of `directives`; name and line only
};

enum class Reason {
    LineTooLong,
    ControlByte,
    NotAscii,
    Backslash,
    UnclosedQuote,
    TooManyWords,
    NotAllowed, ///< a directive that is not listed
    BadValue,
    NotInConnection,
    UnknownBlock,
    NestedBlock,
    UnclosedBlock,
    BadBody, ///< an inline body that is not what belongs there
};

struct Refusal {
    Reason reason;
    QByteArray detail; ///< the directive's name, 32 letters at most, or empty; nothing else of the file
    int line;          ///< from 1
};

/// What OpenVPN would read from these bytes, or the first thing in them that it must not. Any thread, re-entrant,
/// linear in the size; the caller limits that.
std::variant<Configuration, Refusal> readConfiguration(const QByteArray &bytes);

/// One English sentence for the refusal: cause, directive and line, no file contents.
QByteArray sentence(const Refusal &refusal);
