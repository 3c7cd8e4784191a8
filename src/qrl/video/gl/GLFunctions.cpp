#include "qrl/video/gl/GLFunctions.h"

#include <cstring>

namespace qrl {

std::vector<std::string> GLFunctions::load(Resolver resolve, void* user) {
    std::vector<std::string> missing;
#define QRL_GL_LOAD_(result, name, parameters)                                   \
    name = reinterpret_cast<result(*) parameters>(resolve(#name, user));         \
    if (!name) missing.emplace_back(#name);
    QRL_GL_FUNCTIONS(QRL_GL_LOAD_)
#undef QRL_GL_LOAD_
    return missing;
}

bool glExtensionListHas(const char* list, const char* name) {
    if (!list || !name || !*name) return false;
    const size_t n = std::strlen(name);
    for (const char* p = list; (p = std::strstr(p, name)) != nullptr; p += n) {
        if ((p == list || p[-1] == ' ') && (p[n] == ' ' || p[n] == '\0')) return true;
    }
    return false;
}

}  // namespace qrl
