#include "tarn_rmf2v/RMResponses.h"

#include <cstdio>

#include "tarn_base/CTraceManager.h"
#include "tarn_rmf/RMCommonErrors.h"

namespace tarn_rmf2v {
namespace {

std::mutex g_defectMu;
ResponseDefectHandler g_defectHandler;  // guarded by g_defectMu

}  // namespace

void setResponseDefectHandler(ResponseDefectHandler handler) {
    std::lock_guard<std::mutex> g(g_defectMu);
    g_defectHandler = std::move(handler);
}

void reportResponseDefect(const std::string& what) {
    ResponseDefectHandler h;
    {
        std::lock_guard<std::mutex> g(g_defectMu);
        h = g_defectHandler;
    }
    if (h) {
        h(what);
        return;
    }
    static const tarn_base::tr_category_description cats[] = {{"Errors"}, {"Info"}};
    if (auto* t = tarn_base::CTraceManager::newComponent("_RMF", cats, 2)) {
        t->write(0, "response defect: " + what);
    }
    std::fprintf(stderr, "response defect: %s\n", what.c_str());
}

RMResponse::RMResponse(std::string name, Completion done)
    : name_(std::move(name)), done_(std::move(done)) {}

RMResponse::~RMResponse() = default;

bool RMResponse::isComplete() const {
    auto* self = const_cast<RMResponse*>(this);
    std::lock_guard<std::mutex> g(self->mu_);
    return reply_.completed;
}

bool RMResponse::addable(const char* op) {
    // Called with mu_ held.
    if (reply_.completed) {
        reportResponseDefect(name_ + ": " + op + " after the response was finished");
        return false;
    }
    return true;
}

void RMResponse::finish(const cu_error_t* err) {
    RMReply out;
    {
        std::lock_guard<std::mutex> g(mu_);
        if (reply_.completed) {
            reportResponseDefect(name_ + ": finished twice");
            return;
        }
        reply_.completed = true;
        if (err != nullptr) {
            reply_.error = zn::copyError(err);
        }
        out = std::move(reply_);
        reply_ = RMReply{};
        reply_.completed = true;
    }
    if (done_) {
        done_(std::move(out));
    }
}

void RMResponse::finishIfOpen() {
    if (isComplete()) {
        return;
    }
    reportResponseDefect(name_ + ": the handler returned without finishing its response");
    cu_error_t* err = nullptr;
    tarn_rmf::RMPkgCommonError(tarn_rmf::RM_EINTERNAL, nullptr, &err,
                               (name_ + " left its response unfinished").c_str());
    finish(err);
    cu_rel_error_1(err);
}

void RMSimpleResponse::done(cu_error_t* err) { finish(err); }

void RMAttributeValueResponse::addValue(rm_attribute_value* values, unsigned int count) {
    std::lock_guard<std::mutex> g(mu_);
    if (!addable("addValue") || values == nullptr) {
        return;
    }
    for (unsigned int i = 0; i < count; ++i) {
        reply_.values.push_back(RMReplyAttr{
            values[i].rm_attribute_id,
            zn::OwnedValue::copyOf(values[i].rm_data_type, values[i].rm_value)});
    }
}

void RMAttributeValueResponse::addError(int attributeId, cu_error_t* err) {
    std::lock_guard<std::mutex> g(mu_);
    if (!addable("addError")) {
        return;
    }
    RMReplyItem item;
    item.id = attributeId;
    item.error = zn::copyError(err);
    reply_.items.push_back(std::move(item));
}

void RMAttributeValueResponse::done(cu_error_t* err) { finish(err); }

void RMAttributeIdResponse::result(int attributeId, cu_error_t* err) {
    std::lock_guard<std::mutex> g(mu_);
    if (!addable("result")) {
        return;
    }
    RMReplyItem item;
    item.id = attributeId;
    item.error = zn::copyError(err);
    reply_.items.push_back(std::move(item));
}

void RMAttributeIdResponse::done(cu_error_t* err) { finish(err); }

namespace {

RMReplyItem handleItem(const zn_resource_handle* handle, const cu_error_t* err) {
    RMReplyItem item;
    if (handle != nullptr) {
        item.hasHandle = true;
        item.handle = *handle;
    }
    item.error = zn::copyError(err);
    return item;
}

}  // namespace

void RMValidateResourceHandlesResponse::result(const zn_resource_handle* handle, cu_error_t* err) {
    std::lock_guard<std::mutex> g(mu_);
    if (addable("result")) {
        reply_.items.push_back(handleItem(handle, err));
    }
}

void RMValidateResourceHandlesResponse::done(cu_error_t* err) { finish(err); }

void RMEnumResourcesResponse::done(const zn_resource_handle* handles, unsigned int count) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (!reply_.completed && handles != nullptr) {
            reply_.handles.assign(handles, handles + count);
        }
    }
    finish(nullptr);
}

void RMEnumResourcesResponse::done(cu_error_t* err) { finish(err); }

void RMDefineResourceResponse::done(const zn_resource_handle* handle, cu_error_t* err) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (!reply_.completed && handle != nullptr) {
            reply_.hasNewHandle = true;
            reply_.newHandle = *handle;
        }
    }
    finish(err);
}

void RMUndefineResourcesResponse::result(const zn_resource_handle* handle, cu_error_t* err) {
    std::lock_guard<std::mutex> g(mu_);
    if (addable("result")) {
        reply_.items.push_back(handleItem(handle, err));
    }
}

void RMUndefineResourcesResponse::done(cu_error_t* err) { finish(err); }

void RMActionResponse::returnData(const zn_structured_data* data) {
    std::lock_guard<std::mutex> g(mu_);
    if (addable("returnData") && data != nullptr) {
        reply_.actionData.push_back(zn::copySd(data));
    }
}

void RMActionResponse::done(cu_error_t* err) { finish(err); }

void RMGetAclResponse::done(const zn_binary* acl, cu_error_t* err) {
    {
        std::lock_guard<std::mutex> g(mu_);
        if (!reply_.completed && acl != nullptr) {
            zn_value_t v;
            v.ptr_binary = const_cast<zn_binary*>(acl);
            reply_.acl = zn::OwnedValue::copyOf(ZN_BINARY_PTR, v);
        }
    }
    finish(err);
}

}  // namespace tarn_rmf2v
