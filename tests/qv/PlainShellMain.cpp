#include "qv/Shell.h"

#include <iostream>

namespace {

class SilentLine : public qv::Line
{
public:
    void write(qv::ByteView) override {}
    qv::Bytes read(qv::Clock::time_point) override { return {}; }
};

} // namespace

/// A prompt at a line where nobody answers.
int main()
{
    SilentLine line;
    qv::Peer peer(line);
    qv::Session session(peer, std::cout, std::cerr);
    return qv::runShell(session);
}
