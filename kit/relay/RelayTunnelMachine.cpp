#include "kit/relay/RelayTunnelMachine.hpp"

namespace kelvaron {

using namespace tunnelAction;

namespace {

void append(TunnelActions& out, TunnelActions more) {
  for (auto& action : more) out.push_back(std::move(action));
}

}  // namespace

RelayTunnelMachine::RelayTunnelMachine(RelayRole role, const RelaySigner& signer)
    : role_(role), signer_(signer) {}

TunnelActions RelayTunnelMachine::start() {
  if (started_ || stopped_) return {};
  started_ = true;
  return reopen(connGeneration_);
}

TunnelActions RelayTunnelMachine::reopen(std::uint64_t generation) {
  if (generation != connGeneration_ || stopped_) return {};
  TunnelActions out{openSocket{++connGeneration_}};
  append(out, establish(false));
  return out;
}

TunnelActions RelayTunnelMachine::socketFailed(std::uint64_t generation) {
  if (generation != connGeneration_ || stopped_) return {};
  return {reopenLater{generation}};
}

// Begins anew: the handshake of the role, once its credential has come.
TunnelActions RelayTunnelMachine::establish(bool fresh) {
  TunnelActions out;
  established_ = false;
  out.push_back(cancelKeepalive{});
  beginHandshake(isHost() ? RelayPurpose::register_ : RelayPurpose::join, false, out);
  out.push_back(fetchCredential{fresh, flowGeneration_});
  return out;
}

TunnelActions RelayTunnelMachine::credential(std::uint64_t flow, Data bytes) {
  if (flow != flowGeneration_ || stopped_ || !purpose_) return {};
  credential_ = std::move(bytes);
  TunnelActions out;
  beginSending(out);
  return out;
}

TunnelActions RelayTunnelMachine::credentialFailed(std::uint64_t flow, const std::string& why) {
  if (flow != flowGeneration_ || stopped_) return {};
  return {emit{RelayTunnelEvent::unavailable("credential: " + why)}};
}

void RelayTunnelMachine::beginHandshake(RelayPurpose purpose, bool now, TunnelActions& out) {
  ++flowGeneration_;
  purpose_ = purpose;
  cookie_.reset();
  pendingFrame_.reset();
  if (purpose != RelayPurpose::rebind) credential_.reset();
  attempts_ = cookieRetries_ = 0;
  out.push_back(cancelRetry{});
  if (now) beginSending(out);
}

void RelayTunnelMachine::beginSending(TunnelActions& out) {
  sendHandshakeFrame(out);
  out.push_back(armRetry{flowGeneration_});
}

// The proof once the relay has given its cookie, else the request for one.
void RelayTunnelMachine::sendHandshakeFrame(TunnelActions& out) {
  if (!purpose_) return;
  if (pendingFrame_) {
    out.push_back(tunnelAction::send{encode(*pendingFrame_)});
  } else {
    sendFrame(RelayPacketType::challengeRequest, 0, 0, challengeRequestPayload(*purpose_), out);
  }
}

TunnelActions RelayTunnelMachine::retryTick(std::uint64_t flow) {
  if (flow != flowGeneration_ || !purpose_ || stopped_) return {};
  TunnelActions out;
  if (++attempts_ < maxHandshakeAttempts) {
    sendHandshakeFrame(out);
    return out;
  }
  out.push_back(cancelRetry{});
  if (*purpose_ == RelayPurpose::rebind) {
    // A client whose rebind goes unanswered joins anew.
    append(out, establish(false));
  } else {
    out.push_back(emit{RelayTunnelEvent::unavailable("no reply from relay")});
  }
  return out;
}

TunnelActions RelayTunnelMachine::datagram(std::uint64_t generation,
                                           std::span<const std::uint8_t> bytes) {
  if (generation != connGeneration_ || stopped_) return {};
  TunnelActions out;
  try {
    handle(decodeRelayFrame(bytes), out);
  } catch (const RelayFrameError&) {
    // Not a frame: dropped.
  }
  return out;
}

void RelayTunnelMachine::handle(const RelayFrame& frame, TunnelActions& out) {
  const bool ours = established_ && frame.session == session_;
  switch (frame.type) {
    case RelayPacketType::challenge:
      if (purpose_) {
        cookie_ = challengeCookie(frame, *purpose_);
        if (cookie_) answerChallenge(out);
      }
      break;
    case RelayPacketType::registered:
      if (isHost() && purpose_ == RelayPurpose::register_) {
        session_ = frame.session;
        goLive(out);
        sendDenied(out);
        out.push_back(emit{RelayTunnelEvent::registered(session_)});
      }
      break;
    case RelayPacketType::joined:
      if (!isHost() && purpose_ == RelayPurpose::join) {
        session_ = frame.session, peer_ = frame.peer;
        goLive(out);
        out.push_back(emit{RelayTunnelEvent::joined(session_, peer_)});
      }
      break;
    case RelayPacketType::rebound:
      if (!isHost() && purpose_ == RelayPurpose::rebind && frame.session == session_ &&
          frame.peer == peer_) {
        finishHandshake(out);
      }
      break;
    case RelayPacketType::peerJoined:
      if (isHost() && ours) out.push_back(emit{RelayTunnelEvent::peerJoined(frame.peer)});
      break;
    case RelayPacketType::data:
      if (ours) out.push_back(emit{RelayTunnelEvent::data(frame.peer, frame.payload)});
      break;
    case RelayPacketType::close:
      if (!ours) break;
      if (isHost()) {
        out.push_back(emit{RelayTunnelEvent::peerClosed(frame.peer)});
      } else {
        established_ = false;
        out.push_back(cancelKeepalive{});
        finishHandshake(out);
        out.push_back(emit{RelayTunnelEvent::sessionClosed()});
      }
      break;
    case RelayPacketType::error:
      if (const auto code = errorCode(frame)) relayError(*code, frame, out);
      break;
    default:
      break;
  }
}

// The proof of the handshake's purpose, signed over the relay's cookie.
void RelayTunnelMachine::answerChallenge(TunnelActions& out) {
  const Data& cookie = *cookie_;
  RelayFrame proof;
  try {
    switch (*purpose_) {
      case RelayPurpose::register_:
        if (!credential_) return;
        proof = registerProof(signer_, cookie, *credential_);
        break;
      case RelayPurpose::join:
        if (!credential_) return;
        proof = joinProof(signer_, cookie, *credential_);
        break;
      case RelayPurpose::rebind:
        proof = rebindProof(signer_, cookie, session_, peer_);
        break;
    }
    Data datagram = encode(proof);
    pendingFrame_ = std::move(proof);
    out.push_back(tunnelAction::send{std::move(datagram)});
  } catch (const RelayCryptoError&) {
    out.push_back(cancelRetry{});
    out.push_back(emit{RelayTunnelEvent::unavailable("signing failed")});
  } catch (const RelayFrameError&) {
    out.push_back(cancelRetry{});
    out.push_back(emit{RelayTunnelEvent::unavailable("credential too large")});
  }
}

void RelayTunnelMachine::goLive(TunnelActions& out) {
  established_ = everEstablished_ = true;
  finishHandshake(out);
  out.push_back(armKeepalive{});
}

void RelayTunnelMachine::finishHandshake(TunnelActions& out) {
  purpose_.reset();
  cookie_.reset();
  pendingFrame_.reset();
  credential_.reset();
  out.push_back(cancelRetry{});
}

void RelayTunnelMachine::relayError(RelayErrorCode code, const RelayFrame& frame,
                                    TunnelActions& out) {
  const char* again = isHost() ? "re-registering" : "re-joining";
  switch (code) {
    case RelayErrorCode::unknownHost:
      if (!isHost() && everEstablished_) {
        // The host has not registered again yet: the retries go on.
        out.push_back(tunnelAction::log{"relay does not know the host yet; retrying join"});
        return;
      }
      break;
    case RelayErrorCode::unknownSession:
      if (established_) {
        out.push_back(tunnelAction::log{std::string("relay lost our session; ") + again});
        append(out, establish(false));
        return;
      }
      if (everEstablished_) return;
      break;
    case RelayErrorCode::badCookie:
      if (!purpose_) return;
      if (++cookieRetries_ <= maxCookieRetries) {
        cookie_.reset();
        pendingFrame_.reset();
        sendHandshakeFrame(out);
        return;
      }
      break;
    case RelayErrorCode::addressNotOnRecord:
      if (!established_ || purpose_ || frame.session != session_) return;
      out.push_back(tunnelAction::log{std::string("relay does not know our address; ") +
                                      (isHost() ? "re-registering" : "rebinding")});
      if (isHost()) {
        append(out, establish(false));
      } else {
        beginHandshake(RelayPurpose::rebind, true, out);
      }
      return;
    default:
      break;
  }
  out.push_back(cancelRetry{});
  out.push_back(emit{RelayTunnelEvent::error(code)});
}

TunnelActions RelayTunnelMachine::keepaliveTick() {
  if (!established_ || stopped_) return {};
  TunnelActions out;
  sendFrame(RelayPacketType::keepalive, session_, isHost() ? 0 : peer_, Data{0}, out);
  return out;
}

TunnelActions RelayTunnelMachine::pathChanged(std::uint64_t generation) {
  if (firstPathUpdate_) {
    firstPathUpdate_ = false;
    return {};
  }
  if (generation != connGeneration_ || stopped_) return {};
  if (isHost()) return establish(false);
  TunnelActions out;
  if (established_) beginHandshake(RelayPurpose::rebind, true, out);
  return out;
}

TunnelActions RelayTunnelMachine::send(std::uint32_t peer, std::span<const std::uint8_t> bytes) {
  if (!established_ || stopped_ || bytes.size() > RelayLimits::maxPayloadBytes) return {};
  TunnelActions out;
  sendFrame(RelayPacketType::data, session_, isHost() ? peer : peer_,
            Data(bytes.begin(), bytes.end()), out);
  return out;
}

TunnelActions RelayTunnelMachine::setDenied(std::vector<Data> denied) {
  denied_ = std::move(denied);
  TunnelActions out;
  if (established_ && isHost()) sendDenied(out);
  return out;
}

void RelayTunnelMachine::sendDenied(TunnelActions& out) {
  for (const Data& entry : denied_) sendFrame(RelayPacketType::deny, session_, 0, entry, out);
}

TunnelActions RelayTunnelMachine::stop() {
  if (stopped_) return {};
  stopped_ = true;
  TunnelActions out;
  if (established_) {
    const RelayFrame close{RelayPacketType::close, session_, isHost() ? 0 : peer_, {}};
    out.push_back(sendThenClose{encode(close)});
  } else {
    out.push_back(closeSocket{});
  }
  established_ = false;
  out.push_back(cancelRetry{});
  out.push_back(cancelKeepalive{});
  out.push_back(endEvents{});
  return out;
}

void RelayTunnelMachine::sendFrame(RelayPacketType type, std::uint32_t session, std::uint32_t peer,
                                   Data payload, TunnelActions& out) {
  try {
    out.push_back(tunnelAction::send{encode({type, session, peer, std::move(payload)})});
  } catch (const RelayFrameError&) {
    // Too large for a datagram: dropped (a deny entry or data of the caller's).
  }
}

}  // namespace kelvaron
