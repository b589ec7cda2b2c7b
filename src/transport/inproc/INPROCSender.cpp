// INPROCSender: the in-process sender.
#include "transport/inproc/INPROC.h"

#include "Deadline.h"
#include "LogUnit.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

INPROCSender::INPROCSender(char const* address) : address_(address ? address : "") {
    ok_ = match_inproc_address(address_.c_str(), name_) && !name_.is_empty();
}

INPROCSender::~INPROCSender() { hold_(nullptr); }

void INPROCSender::hold_(std::shared_ptr<InprocPort> const& port) {
    std::shared_ptr<InprocPort> old;
    {
        MutexHold hold(mutex_);
        if (held_ == port) return;
        old = held_;
        held_ = port;
    }
    if (old) old->shared().state.connections--;
    if (port) port->shared().state.connections++;
}

std::shared_ptr<InprocPort> INPROCSender::port_() {
    std::shared_ptr<InprocPort> port;
    {
        MutexHold hold(mutex_);
        port = held_;
    }
    if (port && !port->is_stopped()) return port;
    port = find_inproc_port(name_);
    hold_(port);
    return port;
}

bool INPROCSender::is_connected() {
    MutexHold hold(mutex_);
    return held_ && !held_->is_stopped();
}

int INPROCSender::call(Tuple const& request, Tuple& reply) {
    reply.clear();
    if (!ok_) {
        TVK_LOG(LEVEL_ERR, "INPROC SENDER '%0' NOT READY") << address_;
        return CALL_NOT_READY;
    }
    TransportConfig const& config = inproc_config();
    std::shared_ptr<InprocPort> port = port_();
    if (!port) {
        TVK_LOG(LEVEL_ERR, "INPROC SENDER: NO LISTENER AT '%0'") << address_;
        return CALL_REFUSED;
    }
    auto exchange = std::make_shared<InprocExchange>();
    if (encode_tuple(request, exchange->request, config.text_requests()) < 0) {
        TVK_LOG(LEVEL_ERR, "INPROC SENDER '%0' CANNOT ENCODE REQUEST") << address_;
        return CALL_PROTOCOL_ERROR;
    }
    int const timeout_ms = config.comm_timeout_ms(times_.comm());
    Deadline const deadline = Deadline::in_ms(timeout_ms);
    if (!port->post(exchange)) {
        TVK_LOG(LEVEL_ERR, "INPROC SENDER: LISTENER AT '%0' STOPPED") << address_;
        return CALL_PEER_CLOSED;
    }
    {
        MutexHold hold(exchange->mutex);
        while (!exchange->is_settled() && exchange->settled.wait_until(hold, deadline)) {
        }
        if (!exchange->is_settled()) {
            exchange->state = InprocExchange::ABANDONED;
            hold.unlock();
            TVK_LOG(LEVEL_ERR, "INPROC CALL TO '%0' TIMED OUT AFTER %1 MS") << address_ << timeout_ms;
            return CALL_COMM_TIMEOUT;
        }
        if (exchange->state == InprocExchange::FAILED) {
            int why = exchange->result;
            hold.unlock();
            TVK_LOG(LEVEL_ERR, "INPROC CALL TO '%0' FAILED (%1)") << address_ << why;
            return why;
        }
    }
    // Answered: the worker no longer touches the exchange.
    return receive_tuple(exchange->answer, reply, config.max_buffer_size(), address_.c_str(), nullptr);
}

Tuple& INPROCSender::get_param(Tuple& param) {
    param.set_class_name(Symbol("tarvik.INPROCSender"));
    times_.put(param, true);
    param.set_astring(Symbol("name"), address_);
    return param;
}

}  // namespace tarvik
