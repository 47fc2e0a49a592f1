#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"

#include <fstream>
#include <set>

#include "Ferrim/Ferrim.h"
#include "Ferrim/colorMappingOperators/AcesOtOperator.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ObsoleteOperator.h"
#include "QuelinLib/Io.h"
#include "QuelinLib/Json.h"

namespace Quelin {

namespace {

ColorMappingOperatorFactory& factory() { return ColorMappingOperatorFactory::getInstance(); }

template <typename T> EntityHolder<UnaryColorMappingOperator> newOperator() {
    return factory().createOperator(StringView(T::Data::definition()->getName()));
}

/// The record without its link to a predecessor.
GenericDataObject unlinked(GenericDataObject data) {
    if (data.has("predecessor")) {
        if (auto r = data.setValue("predecessor", EntityHolder<Entity>()); !r) throw Exception(r.error());
    }
    return data;
}

/// An operator for a record: the factory's, or a legacy stand-in so that the
/// clean-up can find and report it.
EntityHolder<UnaryColorMappingOperator> operatorFor(GenericDataObject const& data) {
    auto op = factory().createOperator(unlinked(data));
    if (op) return op;
    if (auto def = ObsoleteUnaryColorMappingOperator::findDefinition(data.getName())) {
        auto legacy = makeSharedPtr<ObsoleteUnaryColorMappingOperator>(def);
        if (auto r = legacy->setData(unlinked(data)); !r) return {};
        return EntityHolder<UnaryColorMappingOperator>(legacy);
    }
    return {};
}

bool isObsolete(UnaryColorMappingOperator const& op) {
    return dynamic_cast<ObsoleteUnaryColorMappingOperator const*>(&op) != nullptr ||
           ObsoleteUnaryColorMappingOperator::isObsoleteType(op.getClassName());
}

bool recordsEqual(GenericDataObject const& a, GenericDataObject const& b) {
    if (a.getName() != b.getName()) return false;
    auto const& pa = a.getProperties();
    auto const& pb = b.getProperties();
    if (pa.size() != pb.size()) return false;
    for (std::size_t i = 0; i < pa.size(); ++i) {
        // The link is carried by the order, and ids tell operators apart
        // without being settings.
        if (pa[i].definition && (pa[i].definition->getName() == "predecessor" || pa[i].definition->getName() == "id"))
            continue;
        if (!(pa[i].value == pb[i].value)) return false;
    }
    return true;
}

} // namespace

Stack<EntityHolder<UnaryColorMappingOperator>> getPipelineOperators(EntityHolder<const IColorMappingOperator> pipeline) {
    Stack<EntityHolder<UnaryColorMappingOperator>> ops;
    EntityHolder<IColorMappingOperator> current(std::const_pointer_cast<IColorMappingOperator>(pipeline.getShared()));
    std::set<void const*> seen;
    while (current) {
        // A chain edited into a loop through the records would never end.
        if (!seen.insert(current.get()).second) break;
        auto op = current.cast<UnaryColorMappingOperator>();
        if (!op) break;
        ops.push_back(op);
        current = op->getPredecessor();
    }
    std::reverse(ops.begin(), ops.end());
    return ops;
}

EntityHolder<IColorMappingOperator> createPipeline(Stack<GenericDataObject> const& data) {
    EntityHolder<UnaryColorMappingOperator> chain;
    auto append = [&](EntityHolder<UnaryColorMappingOperator> op) {
        if (chain) op->setPredecessor(chain);
        chain = std::move(op);
    };
    for (GenericDataObject const& record : data) {
        auto op = operatorFor(record);
        if (!op) continue;
        if (chain) {
            OperatorColorEncoding const out = chain->getOutputEncoding(), in = op->getInputEncoding();
            if (out == OperatorColorEncoding::Linear && in == OperatorColorEncoding::Srgb)
                append(newOperator<LinearToSrgbOperator>());
            else if (out == OperatorColorEncoding::Srgb && in == OperatorColorEncoding::Linear)
                append(newOperator<SrgbToLinearOperator>());
        }
        append(std::move(op));
    }
    return chain;
}

EntityHolder<IColorMappingOperator> createDefaultPipeline() {
    EntityHolder<UnaryColorMappingOperator> chain;
    for (auto op : {newOperator<SimpleExposureOperator>(), newOperator<WhiteBalanceOperator>(),
                    newOperator<GreenMagentaTintOperator>(), newOperator<ContrastOperator>(),
                    newOperator<SaturationOperator>(), newOperator<AcesOtOperator>()}) {
        if (chain) op->setPredecessor(chain);
        chain = op;
    }
    return chain;
}

EntityHolder<IColorMappingOperator> createPipelineDeepCopy(EntityHolder<IColorMappingOperator> pipeline) {
    EntityHolder<UnaryColorMappingOperator> chain;
    for (auto const& source : getPipelineOperators(pipeline)) {
        auto copy = std::dynamic_pointer_cast<UnaryColorMappingOperator>(source->createNewInstance());
        if (!copy) continue;
        if (auto r = copy->setData(unlinked(source->getData())); !r) throw Exception(r.error());
        if (chain) copy->setPredecessor(chain);
        chain = EntityHolder<UnaryColorMappingOperator>(copy);
    }
    return chain;
}

Stack<GenericDataObject> convertPipelineToDataObjects(EntityHolder<const IColorMappingOperator> pipeline,
                                                      HiddenItemsTreatment treatment) {
    Stack<GenericDataObject> list;
    for (auto const& op : getPipelineOperators(pipeline))
        if (op->getGroup() != OperatorGroup::Hidden || treatment != HiddenItemsTreatment::Skip)
            list.push_back(unlinked(op->getData()));
    return list;
}

bool updatePipelineWithData(EntityHolder<IColorMappingOperator> pipeline, Stack<GenericDataObject> const& data) {
    Stack<EntityHolder<UnaryColorMappingOperator>> visible;
    for (auto const& op : getPipelineOperators(pipeline))
        if (op->getGroup() != OperatorGroup::Hidden) visible.push_back(op);
    if (visible.size() != data.size()) return false;
    for (std::size_t i = 0; i < data.size(); ++i)
        if (visible[i]->getClassName() != data[i].getName()) return false;
    for (std::size_t i = 0; i < data.size(); ++i) {
        // Every value but the link, which stays as the chain has it.
        GenericDataObject record = data[i];
        if (auto r = record.setValue("predecessor", EntityHolder<Entity>(visible[i]->getPredecessor())); !r) return false;
        if (recordsEqual(record, visible[i]->getData())) continue;
        if (auto r = visible[i]->setData(record); !r) return false;
    }
    return true;
}

bool areOperatorsDataSame(Stack<GenericDataObject> const& a, Stack<GenericDataObject> const& b) {
    // Whole records, "id" included: an operator removed and added again with
    // the same values makes a different pipeline.
    return a == b;
}

bool arePipelinesSame(EntityHolder<const IColorMappingOperator> a, EntityHolder<const IColorMappingOperator> b) {
    if (a == b) return true;
    return areOperatorsDataSame(convertPipelineToDataObjects(a, HiddenItemsTreatment::Keep),
                                convertPipelineToDataObjects(b, HiddenItemsTreatment::Keep));
}

bool hasUniqueIds(EntityHolder<const IColorMappingOperator> pipeline) {
    std::set<int> ids;
    for (auto const& op : getPipelineOperators(pipeline))
        if (!ids.insert(op->get<int>("id")).second) return false;
    return true;
}

Stack<String> removeObsoleteOperatorsFromPipeline(EntityHolder<IColorMappingOperator>& pipeline) {
    Stack<String> removed;
    EntityHolder<UnaryColorMappingOperator> chain;
    bool relink = false;
    for (auto const& op : getPipelineOperators(pipeline)) {
        if (isObsolete(*op)) {
            removed.push_back(op->getClassName());
            relink = true;
            continue;
        }
        // Only operators after a removed one need a new link.
        if (relink) op->setPredecessor(chain);
        chain = op;
    }
    if (!removed.empty()) pipeline = chain;
    return removed;
}

String formatObsoleteOperatorsWarning(Stack<String> const& removed) {
    if (removed.empty()) return {};
    String text = "The loaded tone mapping settings contained the following legacy operators:\n";
    for (auto const& name : removed) text += name + "\n";
    text += "They were removed and the tone mapping settings are now correct.";
    return text;
}

// ---------------------------------------------------------------------------
// Serialised form
// ---------------------------------------------------------------------------

String serializePipeline(EntityHolder<const IColorMappingOperator> pipeline) {
    nlohmann::json ops = nlohmann::json::array();
    for (auto const& record : convertPipelineToDataObjects(pipeline, HiddenItemsTreatment::Skip)) {
        nlohmann::json j = nlohmann::json::object();
        j[String(JSON_CLASS_KEY)] = record.getName();
        nlohmann::json const values = toJson(record);  // items() must not outlive its object
        for (auto const& [key, value] : values.items())
            if (key != "predecessor") j[key] = value;
        ops.push_back(std::move(j));
    }
    nlohmann::json root = {{"mimeType", Ferrim::MIME_COLOR_MAPPING}, {"version", 1}, {"operators", std::move(ops)}};
    return root.dump(2);
}

namespace {
Unexpected<String> corrupted(String const& detail) { return makeError(String(PIPELINE_CORRUPTED_MESSAGE) + " " + detail); }
} // namespace

Expected<LoadedPipeline> deserializePipeline(StringView text) {
    auto parsed = parseJson(text);
    if (!parsed) return corrupted(parsed.error());
    return pipelineFromJson(*parsed);
}

Expected<LoadedPipeline> pipelineFromJson(nlohmann::json const& root) {
    if (!root.is_object()) return corrupted("The text is not a JSON object.");
    auto mime = root.find("mimeType");
    if (mime == root.end() || !mime->is_string() || mime->get<String>() != Ferrim::MIME_COLOR_MAPPING)
        return corrupted("It does not declare \"mimeType\": \"" + Ferrim::MIME_COLOR_MAPPING + "\".");
    auto version = root.find("version");
    if (version != root.end()) {
        auto const v = jsonToInt(*version);
        if (!v || *v > 1) return corrupted("Unsupported version " + describeJson(*version) + ".");
    }
    auto ops = root.find("operators");
    if (ops == root.end() || !ops->is_array()) return corrupted("It has no \"operators\" array.");
    if (ops->size() > MAX_PIPELINE_OPERATORS)
        return corrupted("It has " + std::to_string(ops->size()) + " operators; at most " +
                         std::to_string(MAX_PIPELINE_OPERATORS) + " are accepted.");

    Stack<GenericDataObject> records;
    for (std::size_t i = 0; i < ops->size(); ++i) {
        nlohmann::json const& j = (*ops)[i];
        String const where = "Operator " + std::to_string(i + 1);
        if (!j.is_object()) return corrupted(where + " is not an object.");
        auto cls = j.find(String(JSON_CLASS_KEY));
        if (cls == j.end() || !cls->is_string()) return corrupted(where + " has no \"@class\".");
        String const type = cls->get<String>();
        SharedPtr<DataObjectDefinition const> def;
        if (auto const* d = factory().findDescriptor(type)) def = d->definition;
        else def = ObsoleteUnaryColorMappingOperator::findDefinition(type);
        if (!def) return corrupted(where + " has the unknown type " + describeJson(*cls) + ".");
        GenericDataObject record(def);
        if (auto r = fromJson(j, record); !r) return corrupted(where + ": " + r.error());
        records.push_back(std::move(record));
    }
    LoadedPipeline loaded;
    loaded.pipeline = createPipeline(records);
    loaded.warning = formatObsoleteOperatorsWarning(removeObsoleteOperatorsFromPipeline(loaded.pipeline));
    return loaded;
}

Expected<void> savePipelinePreset(String const& path, EntityHolder<const IColorMappingOperator> pipeline) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return makeError(path + ": cannot write the file");
    out << serializePipeline(pipeline) << "\n";
    out.close();
    if (!out) return makeError(path + ": cannot write the file");
    return {};
}

Expected<LoadedPipeline> loadPipelinePreset(String const& path) {
    auto text = Io::readTextFile(Io::pathFromUtf8(path), MAX_PIPELINE_FILE_BYTES);
    if (!text) return makeError(text.error());
    auto loaded = deserializePipeline(*text);
    if (!loaded) return makeError(path + ": " + loaded.error());
    return loaded;
}

Optional<String> findPipelineLoadError(EntityHolder<const IColorMappingOperator> pipeline) {
    for (auto const& op : getPipelineOperators(pipeline))
        if (auto const* lut = dynamic_cast<LutOperator const*>(op.get()); lut && !lut->getLoadError().empty())
            return lut->getLoadError();
    return std::nullopt;
}

} // namespace Quelin
