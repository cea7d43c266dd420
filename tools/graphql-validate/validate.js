#!/usr/bin/env node
// Validates GraphQL documents against a schema in SDL with graphql-js.
//
//   node validate.js SCHEMA.graphql DOCUMENTS.json
//
// DOCUMENTS.json holds a JSON array of document texts. Prints one JSON array with a result per
// document, in order: {"valid": bool, "errors": [text], "deprecations": [text]}. A use of a
// deprecated field, argument or enum value is reported, not counted as invalid.
// Exit status: 0 when it ran (whatever the documents' validity), 2 on a usage or schema problem.
'use strict';
const fs = require('fs');
const { buildSchema, parse, validate, specifiedRules, NoDeprecatedCustomRule } = require('graphql');

function describe(error) {
  const where = (error.locations || []).map((l) => `${l.line}:${l.column}`).join(',');
  return where ? `${error.message} [at ${where}]` : error.message;
}

function check(schema, text) {
  let document;
  try {
    document = parse(text);
  } catch (error) {
    return { valid: false, errors: [describe(error)], deprecations: [] };
  }
  const errors = validate(schema, document, specifiedRules).map(describe);
  const deprecations = validate(schema, document, [NoDeprecatedCustomRule]).map(describe);
  return { valid: errors.length === 0, errors, deprecations };
}

function main(argv) {
  if (argv.length !== 2) {
    process.stderr.write('usage: validate.js SCHEMA.graphql DOCUMENTS.json\n');
    return 2;
  }
  let schema;
  let documents;
  try {
    // Hosts' dumps carry directives of their own that need no checking.
    schema = buildSchema(fs.readFileSync(argv[0], 'utf8'), { assumeValidSDL: true });
    documents = JSON.parse(fs.readFileSync(argv[1], 'utf8'));
  } catch (error) {
    process.stderr.write(`validate.js: ${error.message}\n`);
    return 2;
  }
  if (!Array.isArray(documents) || documents.some((d) => typeof d !== 'string')) {
    process.stderr.write('validate.js: DOCUMENTS.json must hold an array of texts\n');
    return 2;
  }
  process.stdout.write(JSON.stringify(documents.map((d) => check(schema, d))) + '\n');
  return 0;
}

process.exitCode = main(process.argv.slice(2));
