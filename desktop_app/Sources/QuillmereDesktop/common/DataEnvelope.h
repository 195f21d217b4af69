#pragma once

#include "QuillmereDesktop/common/Result.h"

#include <qcoro/qcorotask.h>

#include <type_traits>

// Some relay answers wrap their record in an object with one field, `data`; this awaits
// such an answer and gives the record inside, or the failure as it came.
template <class Envelope>
QCoro::Task<Result<std::remove_cvref_t<decltype(Envelope::data)>>>
unwrapData(QCoro::Task<Result<Envelope>> answer) {
    Result<Envelope> envelope = co_await std::move(answer);
    if (!envelope)
        co_return envelope.error();
    co_return std::move(std::move(envelope).value().data);
}
