// SPDX-License-Identifier: MIT
#include "inline_bodies.h"

#include "value_grammar.h"

#include <algorithm>
#include <utility>

namespace {

constexpr qsizetype base64Width = 64;
constexpr qsizetype hexWidth = 32;
constexpr qsizetype staticKeyDigits = 512; // 2048 bits: both directions' cipher and HMAC keys
constexpr QByteArrayView dashes = "-----";

enum class Content { Base64, StaticKey, Skipped };

struct Armour {
    QByteArrayView block;
    QByteArrayView label;
    qsizetype maxCount; ///< in one body; at least one is needed
    Content content;
};

constexpr qsizetype any = 1000;

// Several labels for one block are alternatives. A key that needs a passphrase has a label of its own, which is not
// here, or a header inside its armour, which is no base64.
constexpr Armour armours[] = {
    {"ca", "CERTIFICATE", any, Content::Base64},
    {"cert", "CERTIFICATE", any, Content::Base64},
    {"extra-certs", "CERTIFICATE", any, Content::Base64},
    {"crl-verify", "X509 CRL", any, Content::Base64},
    {"key", "PRIVATE KEY", 1, Content::Base64},
    {"key", "RSA PRIVATE KEY", 1, Content::Base64},
    {"key", "EC PRIVATE KEY", 1, Content::Base64},
    {"key", "EC PARAMETERS", 1, Content::Skipped}, // openssl puts them before the key, which names its curve itself
    {"tls-auth", "OpenVPN Static key V1", 1, Content::StaticKey},
    {"tls-crypt", "OpenVPN Static key V1", 1, Content::StaticKey},
    {"tls-crypt-v2", "OpenVPN tls-crypt-v2 client key", 1, Content::Base64},
};

constexpr QByteArrayView fingerprintBlock = "peer-fingerprint";

const Armour *armourOf(QByteArrayView block, QByteArrayView label)
{
    const auto *const found = std::ranges::find_if(
        armours, [&](const Armour &armour) { return armour.block == block && armour.label == label; });
    return found == std::end(armours) ? nullptr : found;
}

bool isHex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isWhole(const QByteArray &content, Content kind)
{
    if (kind == Content::StaticKey)
        return content.size() == staticKeyDigits && std::ranges::all_of(content, isHex);
    // Encoding what was decoded finds foreign letters, wrong padding and leftover bits alike.
    return !content.isEmpty() && QByteArray::fromBase64(content).toBase64() == content;
}

QByteArray wrapped(const QByteArray &content, qsizetype width)
{
    QByteArray text;
    for (qsizetype at = 0; at < content.size(); at += width)
        text += content.mid(at, width) + '\n';
    return text;
}

/// Takes lines one by one and collects the armours among them.
class ArmourReader {
public:
    explicit ArmourReader(QByteArray block) : block_(std::move(block)) {}
    bool take(QByteArrayView line); ///< false when the line does not belong here
    [[nodiscard]] bool isComplete() const { return !armour_ && count_ > 0; }
    QByteArray text;

private:
    bool begin(QByteArrayView line);
    bool end(QByteArrayView line);

    QByteArray block_;
    const Armour *armour_ = nullptr;
    QByteArray content_;
    qsizetype count_ = 0;
};

bool ArmourReader::begin(QByteArrayView line)
{
    constexpr QByteArrayView opening = "-----BEGIN ";
    if (!line.startsWith(opening) || !line.endsWith(dashes) || line.size() < opening.size() + dashes.size())
        return false;
    armour_ = armourOf(block_, line.sliced(opening.size()).chopped(dashes.size()));
    content_.clear();
    if (!armour_ || armour_->content == Content::Skipped)
        return armour_;
    return ++count_ <= armour_->maxCount;
}

bool ArmourReader::end(QByteArrayView line)
{
    if (line != "-----END " + armour_->label.toByteArray() + "-----" || !isWhole(content_, armour_->content))
        return false;
    const Armour &ended = *std::exchange(armour_, nullptr);
    if (ended.content == Content::Skipped)
        return true;
    text += "-----BEGIN " + ended.label.toByteArray() + "-----\n";
    text += wrapped(content_, ended.content == Content::StaticKey ? hexWidth : base64Width);
    text += line.toByteArray() + '\n';
    return true;
}

bool ArmourReader::take(QByteArrayView line)
{
    if (line.startsWith(dashes))
        return armour_ ? end(line) : begin(line);
    if (armour_)
        content_ += line;
    // Certificate tools write free text around the armour. A tag or dashes inside a line are never part of it.
    return armour_ || (!line.startsWith('<') && !line.contains(dashes));
}

/// Empty when the body is not a list of fingerprints.
QByteArray normalisedFingerprints(const QList<QByteArrayView> &lines)
{
    QByteArray text;
    for (const QByteArrayView line : lines) {
        if (line.isEmpty() || line.startsWith('#') || line.startsWith(';'))
            continue;
        if (!ConfigValues::isFingerprint(line.toByteArray()))
            return {};
        text += line.toByteArray() + '\n';
    }
    return text;
}

/// Empty when the body is not the armour that belongs into `block`.
QByteArray normalisedArmour(const QByteArray &block, const QList<QByteArrayView> &lines)
{
    ArmourReader reader(block);
    const bool belong = std::ranges::all_of(lines, [&](QByteArrayView line) { return reader.take(line); });
    return belong && reader.isComplete() ? reader.text : QByteArray();
}

} // namespace

bool ConfigBodies::isKnown(const QByteArray &block)
{
    return block == fingerprintBlock ||
           std::ranges::any_of(armours, [&](const Armour &armour) { return armour.block == block; });
}

Result<QByteArray> ConfigBodies::normalised(const QByteArray &block, const QList<QByteArrayView> &lines)
{
    QByteArray body = block == fingerprintBlock ? normalisedFingerprints(lines) : normalisedArmour(block, lines);
    if (body.isEmpty())
        return failure(wrongContents, ErrorCode::ConfigRejected);
    return body;
}
