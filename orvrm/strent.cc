#include "orvrm/strent.h"

#include <cstdlib>
#include <cstring>

strent* parsestr(const char* string, char separator) {
    if (string == nullptr || *string == '\0') {
        return nullptr;
    }
    strent* head = nullptr;
    strent* tail = nullptr;
    const char* pos = string;
    for (;;) {
        const char* sep = std::strchr(pos, separator);
        size_t length = sep != nullptr ? static_cast<size_t>(sep - pos) : std::strlen(pos);
        auto* node = static_cast<strent*>(std::calloc(1, sizeof(strent)));
        char* token = static_cast<char*>(std::calloc(length + 1, 1));
        if (node == nullptr || token == nullptr) {
            // A partial split would silently drop tokens: give nothing back instead.
            std::free(node);
            std::free(token);
            freestrlst(head);
            return nullptr;
        }
        std::strncpy(token, pos, length);
        node->str = token;
        if (tail == nullptr) {
            head = node;
        } else {
            tail->next = node;
        }
        tail = node;
        if (sep == nullptr || sep[1] == '\0') {
            break;
        }
        pos = sep + 1;
    }
    return head;
}

void freestrlst(strent* list) {
    while (list != nullptr) {
        strent* next = list->next;
        std::free(list->str);
        std::free(list);
        list = next;
    }
}

int checkstrinlist(const char* string, const strent* list) {
    if (string == nullptr) {
        return 0;
    }
    for (; list != nullptr; list = list->next) {
        if (list->str != nullptr && std::strcmp(list->str, string) == 0) {
            return 1;
        }
    }
    return 0;
}

strent* createstrent(const char* string) {
    if (string == nullptr) {
        return nullptr;
    }
    auto* node = static_cast<strent*>(std::malloc(sizeof(strent)));
    if (node == nullptr) {
        return nullptr;
    }
    node->str = strdup(string);
    node->next = nullptr;
    if (node->str == nullptr) {
        std::free(node);
        return nullptr;
    }
    return node;
}

void addstrtolst(strent* list, strent* node) {
    if (list == nullptr) {
        return;
    }
    while (list->next != nullptr) {
        list = list->next;
    }
    list->next = node;
}

int addstrifuniqtolist(const char* string, strent* list) {
    if (list == nullptr) {
        return -1;
    }
    if (checkstrinlist(string, list) != 0) {
        return 0;
    }
    strent* node = createstrent(string);
    if (node == nullptr) {
        return -1;
    }
    addstrtolst(list, node);
    return 1;
}
