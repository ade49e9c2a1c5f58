// Holds JSON texts against a schema, by both drafts that it is written for. Standard input is
// {"schema": text, "documents": [text]}; prints [{"draft07": bool, "draft2020": bool}], null for a
// text that is no JSON, and fails when the schema itself is not valid in strict mode.
import Ajv from "ajv";
import Ajv2020 from "ajv/dist/2020.js";
import { readFileSync } from "node:fs";

const { schema, documents } = JSON.parse(readFileSync(0, "utf8"));
const complaints = [];
const logger = { log: (text) => complaints.push(text), warn: (text) => complaints.push(text),
                 error: (text) => complaints.push(text) };
const compile = (Kind) => {
  const validator = new Kind({ strict: true, strictRequired: false, logger });
  const parsed = JSON.parse(schema);
  if (!validator.validateSchema(parsed)) throw new Error(JSON.stringify(validator.errors));
  return validator.compile(parsed);
};
const draft07 = compile(Ajv);
const draft2020 = compile(Ajv2020);
if (complaints.length > 0) throw new Error(complaints.join("\n"));

const parse = (text) => {
  try {
    return [JSON.parse(text)];
  } catch {
    return null;
  }
};
console.log(JSON.stringify(documents.map((text) => {
  const parsed = parse(text);
  return parsed && { draft07: draft07(parsed[0]), draft2020: draft2020(parsed[0]) };
})));
