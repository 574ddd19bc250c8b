// item list / read / write: any extension item through one transaction, the record as hex.
#include <cstdio>

#include "commands.h"
#include "text_format.h"

namespace tarvikctl {

namespace {

Json ItemJson(const ItemInfo& item) { return Json{{"item", item.number}, {"name", item.name}}; }

std::string Direction(int bytes) { return bytes < 0 ? "-" : std::to_string(bytes) + " bytes"; }

std::string What(const char* verb, const ItemInfo& item) {
    return std::string("item ") + verb + " " + std::to_string(item.number);
}

tarvik_data_block Block(const ItemRequest& r) {
    tarvik_data_block block{};
    block.target = r.target;
    block.length = r.length;
    block.offset = r.offset;
    std::copy(r.bytes.begin(), r.bytes.end(), block.data);
    return block;
}

std::vector<uint8_t> ReadBytes(Device& camera, const ItemRequest& r) {
    const ItemInfo& item = *r.item;
    if (item.number == kDataBlockItem) {
        tarvik_data_block block = Block(r);
        Check(camera.ReadItem(item.number, nullptr, &block, sizeof block), What("read", item));
        return std::vector<uint8_t>(block.data, block.data + r.length);
    }
    RecordBuffer record;
    const int mode = r.mode;  // the lens motor's record: which value
    const void* input = item.number == kVcmItem ? &mode : nullptr;
    Check(camera.ReadItem(item.number, input, record.bytes, sizeof record.bytes),
          What("read", item));
    return RecordBytes(item, record, item.readBytes);
}

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
    session.Out().Ok(Json{{"items", json}}, text);
    return kExitOk;
}

int RunItemRead(Session& session, const ItemOptions& options) {
    const ItemRequest r = ParseItemRead(options);
    const std::vector<uint8_t> bytes = ReadBytes(session.Camera(), r);
    Json json = ItemJson(*r.item);
    json["hex"] = Hex(bytes.data(), bytes.size());
    session.Out().Ok(json, Hex(bytes.data(), bytes.size()) + "\n");
    return kExitOk;
}

int RunItemWrite(Session& session, const ItemOptions& options) {
    const ItemRequest r = ParseItemWrite(options);
    const ItemInfo& item = *r.item;
    int result = 0;
    if (item.number == kDataBlockItem) {
        const tarvik_data_block block = Block(r);
        result = session.Camera().WriteItem(item.number, &block, sizeof block);
    } else {
        RecordBuffer record;
        FillRecord(item, r.bytes, record);
        result = session.Camera().WriteItem(item.number, record.bytes,
                                            static_cast<size_t>(item.record.write_size));
    }
    Check(result, What("write", item));
    session.Out().Ok(ItemJson(item), "");
    return kExitOk;
}

}  // namespace tarvikctl
