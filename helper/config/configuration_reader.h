// SPDX-License-Identifier: MIT
#pragma once

#include "configuration.h"
#include "result.h"

/// Reads what OpenVPN, run as root, is going to be told. Any thread; no I/O; linear in the size, which the caller
/// limits. A refusal is `ErrorCode::ConfigRejected`: its one sentence names the cause, the line and the directive, at
/// most 32 letters of it, and repeats nothing else of the file.
///
/// The reader sees exactly the words that OpenVPN 2.6 would see, or refuses. The rules, and where OpenVPN has them:
///  - OpenVPN reads a line into 257 bytes (options.c, read_config_file()), and a line of an inline body or a connection
///    block into 256 (read_inline_file(), read_config_string()). The rest of a longer line becomes a line of its own.
///    So no line may have more than 254 bytes here.
///  - fgets() keeps a NUL, and every later function stops at it: the rest would be hidden. So control bytes are
///    refused, in comments too. A tab counts as a space, and a CR may stand before its LF.
///  - Words (parse_line()): a closing quote ends the word although no space follows. Quotes inside an unquoted word are
///    ordinary. '#' and ';' begin a comment only where a word could begin. OpenVPN silently drops what follows the
///    16th word; the reader refuses it. Backslashes and bytes beyond ASCII are refused outside comments.
///  - One leading "--" is dropped (bypass_doubledash()), then a lone "<name>" begins an inline body
///    (check_inline_file()), then "setenv opt X" becomes X (add_option()), each of them once.
///  - A body ends at a line that begins with its closing tag, whatever follows; the reader lets nothing follow.
///    OpenVPN collects a connection block first and cuts it into lines later, so a block inside one is refused.
///  - Several directives act while they are read: `log` truncates its file, `cd` changes the folder, `providers` and
///    `plugin` load code even where no script may run. So the reader refuses whatever is not listed, and leaves
///    nothing to OpenVPN's own checks.
Result<Configuration> readConfiguration(const QByteArray &bytes);
