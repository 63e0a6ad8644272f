// SPDX-License-Identifier: MIT
#pragma once

#include <QObject>

#include <memory>

struct DeleteLater {
    void operator()(QObject *object) const { object->deleteLater(); }
};

/// Owns an object that may be let go of from one of its own signals: it is deleted by the event loop, afterwards.
template <typename Object>
using Deferred = std::unique_ptr<Object, DeleteLater>;
