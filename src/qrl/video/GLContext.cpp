#include "qrl/video/GLContext.h"

namespace qrl {

namespace {
thread_local GLContext* tCurrent = nullptr;
}

GLContext::~GLContext() {
    if (tCurrent == this) tCurrent = nullptr;
}

GLContext* GLContext::current() { return tCurrent; }

void GLContext::clearCurrent() {
    if (GLContext* c = tCurrent) {
        tCurrent = nullptr;
        c->releaseCurrent();
    }
}

void GLContext::setCurrent(GLContext* context) { tCurrent = context; }

}  // namespace qrl
