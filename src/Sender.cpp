// Sender: the neutral operations of a sender.
#include "tarvik/Sender.h"

#include "LogUnit.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

Sender::~Sender() = default;

bool Sender::is_ok() { return false; }
bool Sender::is_connected() { return false; }
int Sender::call(Tuple const&, Tuple&) { return 0; }
void Sender::set_param(Tuple const&) {}
Tuple& Sender::get_param(Tuple& param) { return param; }

}  // namespace tarvik
