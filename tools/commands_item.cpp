// item list / read / write: any extension item through one transaction, the record as hex.
#include <TarvikImpl.h>

#include "commands.h"
#include "text_format.h"

namespace tarvikctl {

namespace {

Json ItemJson(const ItemInfo& item) { return Json{{"item", item.number}, {"name", item.name}}; }

std::string Direction(int bytes) { return bytes < 0 ? "-" : std::to_string(bytes) + " bytes"; }

}  // namespace

int RunItemList(Session& session) {
    Json json = Json::array();
    std::string text = "item  name          read       write\n";
    for (const ItemInfo& item : Items()) {
        Json row = ItemJson(item);
        row["read_bytes"] = item.readBytes;
        row["write_bytes"] = item.writeBytes;
        json.push_back(row);
        char line[96];
        std::snprintf(line, sizeof line, "%4d  %-12s  %-9s  %s\n", item.number, item.name,
                      Direction(item.readBytes).c_str(), Direction(item.writeBytes).c_str());
        text += line;
    }
    session.Emit(json, text);
    return kExitOk;
}

int RunItemRead(Session& session, const ItemOptions& options) {
    const ItemRequest r = ParseItemRead(options);
    const ItemInfo& item = *r.item;
    const auto number = static_cast<UVC_EXT_ITEM_E>(item.number);
    std::vector<uint8_t> bytes;
    int hr = 0;
    if (item.number == kDataBlockItem) {
        uvc_extDataBlock block{};
        block.target = r.target;
        block.length = r.length;
        block.offset = r.offset;
        hr = session.WithCamera(
            [&](TarvikImpl& c) { return c.ReadByExtItem(number, &block, nullptr); });
        bytes.assign(block.data, block.data + r.length);
    } else {
        RecordBuffer record;
        auto mode = static_cast<_VCM_MODE_E>(r.mode);
        void* input = item.number == kVcmItem ? &mode : nullptr;
        hr = session.WithCamera(
            [&](TarvikImpl& c) { return c.ReadByExtItem(number, input, record.bytes); });
        bytes = RecordBytes(item, record, item.readBytes);
    }
    if (hr != 0) throw ResultError("item read " + std::to_string(item.number), hr);
    Json json = ItemJson(item);
    json["hex"] = Hex(bytes.data(), bytes.size());
    session.Emit(json, Hex(bytes.data(), bytes.size()) + "\n");
    return kExitOk;
}

int RunItemWrite(Session& session, const ItemOptions& options) {
    const ItemRequest r = ParseItemWrite(options);
    const ItemInfo& item = *r.item;
    const auto number = static_cast<UVC_EXT_ITEM_E>(item.number);
    int hr = 0;
    if (item.number == kDataBlockItem) {
        uvc_extDataBlock block{};
        block.target = r.target;
        block.length = r.length;
        block.offset = r.offset;
        std::copy(r.bytes.begin(), r.bytes.end(), block.data);
        hr = session.WithCamera([&](TarvikImpl& c) { return c.WriteByExtItem(number, &block); });
    } else {
        RecordBuffer record;
        FillRecord(item, r.bytes, record);
        hr = session.WithCamera(
            [&](TarvikImpl& c) { return c.WriteByExtItem(number, record.bytes); });
    }
    if (hr != 0) throw ResultError("item write " + std::to_string(item.number), hr);
    if (session.Options().json) {
        Json json = ItemJson(item);
        json["result"] = 0;
        session.Emit(json, "");
    }
    return kExitOk;
}

}  // namespace tarvikctl
