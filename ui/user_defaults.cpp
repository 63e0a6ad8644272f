// SPDX-License-Identifier: MIT
#include "user_defaults.h"

#include "private_file.h"
#include "system_log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

using namespace Qt::StringLiterals;

namespace {

class Store : public QSettings {
public:
    Store() : QSettings(NativeFormat, UserScope, u"Corvale"_s, u"Corvale"_s) { setFallbacksEnabled(false); }
};

void logFailure(const QString &reason)
{
    SystemLog::write(u"User defaults error: "_s + reason);
}

/// Makes the file with mode 0600. QSettings replaces it by a new file with the same mode or a narrower one.
bool prepare(const QFileInfo &file)
{
    QDir().mkpath(file.path());
    // Some people keep their configuration elsewhere, behind links. QSettings then replaces the target of the link.
    const QString path = file.exists() ? file.canonicalFilePath() : file.filePath();
    const auto ensured = PrivateFile::ensure(QFile::encodeName(path).constData());
    if (!ensured)
        logFailure(QString::fromLocal8Bit(ensured.error().detail));
    return ensured.has_value();
}

/// Applies `change` and writes it to the disk at once, all of it or nothing.
template <typename Change>
void update(Change change)
{
    Store store;
    if (!prepare(QFileInfo(store.fileName())))
        return;
    change(store);
    store.sync();
    if (store.status() == QSettings::AccessError)
        logFailure(u"cannot write "_s + store.fileName());
}

} // namespace

std::optional<QString> UserDefaults::stringForKey(const QString &key)
{
    const QVariant value = Store().value(key);
    return value.typeId() == QMetaType::QString ? std::optional(value.toString()) : std::nullopt;
}

void UserDefaults::setStrings(const QMap<QString, QString> &entries)
{
    update([&entries](QSettings &store) {
        for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
            store.setValue(entry.key(), entry.value());
    });
}

void UserDefaults::removeKeys(const QStringList &keys)
{
    update([&keys](QSettings &store) {
        for (const QString &key : keys)
            store.remove(key);
    });
}
