#include "ogr/Schema.h"

#include "ogr/UniqueNames.h"

namespace kesp::ogr {
namespace {

class Fields {
 public:
  explicit Fields(OGRFeatureDefn& definition) : m_definition(definition) {}

  void Reserve(const std::string& name) { (void)m_names.Take(name); }
  int Add(const std::string name, OGRFieldType type) {
    OGRFieldDefn field(m_names.Take(name).c_str(), type);
    return Add(field);
  }
  int Add(const std::string name, OGRFieldType type, OGRFieldSubType subtype) {
    OGRFieldDefn field(m_names.Take(name).c_str(), type);
    field.SetSubType(subtype);
    return Add(field);
  }
  int AddAttribute(const Survey& survey, std::size_t code) {
    const std::string name = survey.attributes.NameOf(code);
    const AttributeTraits& traits = survey.attributes[code];
    OGRFieldDefn field(m_names.Take(name.empty() ? "attribute" : name).c_str(), traits.FieldType());
    if (traits.FieldType() == OFTReal) field.SetPrecision(traits.decimals);
    if (traits.HasDomain()) field.SetDomainName(DomainName(survey, code));
    return Add(field);
  }

 private:
  int Add(OGRFieldDefn& field) {
    m_definition.AddFieldDefn(&field);
    return m_definition.GetFieldCount() - 1;
  }

  OGRFeatureDefn& m_definition;
  UniqueNames m_names;
};

}  // namespace

std::string DomainName(const Survey& survey, std::size_t attribute) {
  const std::string name = survey.attributes.NameOf(attribute);
  return name.empty() ? "attribute" : name;
}

Schema MakeSchema(const Survey& survey, const LayerPlan& layer, OGRFeatureDefn& definition) {
  Fields fields(definition);
  fields.Reserve(kFidColumn);
  fields.Add("feature_name", OFTString);
  fields.Add("feature_color", OFTInteger64);
  fields.Add("feature_symbol", OFTInteger);
  fields.Add("deleted", OFTInteger, OFSTBoolean);
  fields.Add("edited", OFTInteger, OFSTBoolean);

  Schema schema;
  schema.fields.resize(survey.attributes.Size());
  for (const std::size_t code : layer.attributes) {
    schema.fields[code].value = fields.AddAttribute(survey, code);
    if (!survey.attributes[code].hasSubValues) continue;
    schema.fields[code].subValue = fields.Add(survey.attributes.NameOf(code) + "_sub", OFTString);
  }
  if (layer.hasFurther) schema.further = fields.Add("further_attributes", OFTString, OFSTJSON);
  return schema;
}

}  // namespace kesp::ogr
