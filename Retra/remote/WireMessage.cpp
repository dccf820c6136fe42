#include "Retra/remote/WireMessage.h"

#include "Orb/AttrLog.h"
#include "Orb/Exception.h"

namespace Retra::Wire {
namespace {

Orb::AttrLogOut start(MessageType type) {
  Orb::AttrLogOut out;
  out.writeEnum(uint32_t(type));
  return out;
}

void writeListed(Orb::AttrLogOut& out, const ListedRequest& item) {
  out.beginCompound(6);
  out.writeU32(item.uid);
  writeAttr(out, item.request);
  writeAttr(out, item.state);
  out.writeU16(item.statusCode);
  writeAttr(out, item.lastError);
  out.writeDouble(item.lastUpdateTime);
  out.endCompound();
}

ListedRequest readListed(Orb::AttrLogIn& in) {
  ListedRequest item;
  in.beginCompound();
  item.uid = in.readU32();
  item.request = Request(in);
  readAttr(in, &item.state);
  item.statusCode = in.readU16();
  readAttr(in, &item.lastError);
  item.lastUpdateTime = in.readDouble();
  in.endCompound();
  return item;
}

}  // namespace

uint32_t messageTypeOf(std::string_view payload) noexcept {
  try {
    Orb::AttrLogIn in(payload);
    return in.readEnum();
  } catch (const Orb::ParseException&) {
    return 0;
  }
}

Message decodeMessage(std::string_view payload) {
  Orb::AttrLogIn in(payload);
  Message m;
  const uint32_t type = in.readEnum();
  if (type == 0 || type > lastMessageType) {
    Orb::throwParseException("unknown message type " + std::to_string(type));
  }
  m.type = MessageType(type);
  switch (m.type) {
    case MessageType::hello:
      m.versionMin = in.readU32();
      m.versionMax = in.readU32();
      m.text = in.readString().view();
      break;
    case MessageType::welcome:
      m.versionMin = m.versionMax = in.readU32();
      m.uid = in.readU32();
      m.text = in.readString().view();
      break;
    case MessageType::writeRequest:
      m.id = in.readU64();
      m.flag = in.readBool();
      m.request = Request(in);
      break;
    case MessageType::withdraw:
    case MessageType::reset:
      m.id = in.readU64();
      m.key = RequestKey(in);
      break;
    case MessageType::list:
      m.id = in.readU64();
      m.flag = in.readBool();
      break;
    case MessageType::watch:
      m.id = in.readU64();
      m.flag = in.readBool();
      m.key = RequestKey(in);
      break;
    case MessageType::ping:
    case MessageType::synced:
      m.id = in.readU64();
      break;
    case MessageType::reply: {
      m.id = in.readU64();
      const uint32_t code = in.readU32();
      if (code > lastReplyCode) Orb::throwParseException("unknown reply code");
      m.code = ReplyCode(code);
      m.text = in.readString().view();
      break;
    }
    case MessageType::listing:
      m.id = in.readU64();
      for (uint32_t n = in.beginCompound(); n > 0; --n) m.listing.push_back(readListed(in));
      in.endCompound();
      break;
    case MessageType::snapshot:
    case MessageType::change:
      m.key = RequestKey(in);
      m.rest = payload.substr(in.offset());
      return m;  // the response part is read by its own reader
    case MessageType::removed:
      m.key = RequestKey(in);
      break;
  }
  in.expectEnd();
  return m;
}

std::string encodeHello(std::string_view clientName) {
  auto out = start(MessageType::hello);
  out.writeU32(protocolVersion);
  out.writeU32(protocolVersion);
  out.writeString(clientName);
  return out.bytes();
}

std::string encodeWelcome(uint32_t uid, std::string_view serviceVersion) {
  auto out = start(MessageType::welcome);
  out.writeU32(protocolVersion);
  out.writeU32(uid);
  out.writeString(serviceVersion);
  return out.bytes();
}

std::string encodeWriteRequest(uint64_t id, bool ephemeral, const Request& request) {
  auto out = start(MessageType::writeRequest);
  out.writeU64(id);
  out.writeBool(ephemeral);
  writeAttr(out, request);
  return out.bytes();
}

std::string encodeKeyCommand(MessageType type, uint64_t id, const RequestKey& key) {
  auto out = start(type);
  out.writeU64(id);
  writeAttr(out, key);
  return out.bytes();
}

std::string encodeList(uint64_t id, bool allUsers) {
  auto out = start(MessageType::list);
  out.writeU64(id);
  out.writeBool(allUsers);
  return out.bytes();
}

std::string encodeWatch(uint64_t id, bool everything, const RequestKey& key) {
  auto out = start(MessageType::watch);
  out.writeU64(id);
  out.writeBool(everything);
  writeAttr(out, key);
  return out.bytes();
}

std::string encodePing(uint64_t id) {
  auto out = start(MessageType::ping);
  out.writeU64(id);
  return out.bytes();
}

std::string encodeReply(uint64_t id, ReplyCode code, std::string_view text) {
  auto out = start(MessageType::reply);
  out.writeU64(id);
  out.writeU32(uint32_t(code));
  out.writeString(text);
  return out.bytes();
}

std::string encodeListing(uint64_t id, const std::vector<ListedRequest>& listing) {
  auto out = start(MessageType::listing);
  out.writeU64(id);
  out.beginCompound(uint32_t(listing.size()));
  for (const ListedRequest& item : listing) writeListed(out, item);
  out.endCompound();
  return out.bytes();
}

std::string encodeRemoved(const RequestKey& key) {
  auto out = start(MessageType::removed);
  writeAttr(out, key);
  return out.bytes();
}

std::string encodeSynced(uint64_t id) {
  auto out = start(MessageType::synced);
  out.writeU64(id);
  return out.bytes();
}

}  // namespace Retra::Wire
