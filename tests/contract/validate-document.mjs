// Validates the host's OpenAPI document: against the OpenAPI 3.1 schema (with the JSON Schema dialect of
// every schema in it), then for what that schema cannot see: every reference resolves, operation ids are
// unique, every template variable of a path is declared as a path parameter, and every operation
// documents the replies any request can get.
// Usage: node validate-document.mjs <openapi.json>. Exits 77 (skipped) when the validator is not installed.
import { readFile } from 'node:fs/promises';
import { resolve } from 'node:path';
import { loadValidator, formatErrors, pointerGet, METHODS } from './openapi-support.mjs';

const [documentPath] = process.argv.slice(2);
const { validate } = await loadValidator();
const document = JSON.parse(await readFile(resolve(documentPath), 'utf8'));

const problems = [];
const output = await validate('https://spec.openapis.org/oas/3.1/schema-base', document, 'BASIC');
if (!output.valid) {
  problems.push(`not a valid OpenAPI 3.1 document:\n${formatErrors(output.errors)}`);
}

// Every "$ref" inside the document must name something in it.
(function walk(node, at) {
  if (Array.isArray(node)) {
    node.forEach((item, i) => walk(item, `${at}/${i}`));
  } else if (node && typeof node === 'object') {
    if (typeof node.$ref === 'string' && pointerGet(document, node.$ref) === undefined) {
      problems.push(`${at}: $ref ${node.$ref} names nothing`);
    }
    for (const [key, value] of Object.entries(node)) walk(value, `${at}/${key}`);
  }
})(document, '#');

const generic = document['x-unmatched-request-responses'];
if (!generic || typeof generic !== 'object') {
  problems.push('x-unmatched-request-responses is missing: the check of exchanges needs it');
}
const operationIds = new Set();
for (const [path, item] of Object.entries(document.paths ?? {})) {
  const variables = [...path.matchAll(/\{([^}]+)\}/g)].map((m) => m[1]);
  for (const method of METHODS) {
    const operation = item[method];
    if (!operation) continue;
    const where = `${method.toUpperCase()} ${path}`;
    if (operationIds.has(operation.operationId)) problems.push(`${where}: operationId ${operation.operationId} is used twice`);
    operationIds.add(operation.operationId);
    const declared = [...(item.parameters ?? []), ...(operation.parameters ?? [])]
      .map((p) => (p.$ref ? pointerGet(document, p.$ref) : p))
      .filter((p) => p?.in === 'path')
      .map((p) => p.name);
    for (const variable of variables) {
      if (!declared.includes(variable)) problems.push(`${where}: path parameter {${variable}} is not declared`);
    }
    for (const status of Object.keys(generic ?? {})) {
      // An operation answered before the request policy (x-before-request-policy) cannot be refused by it.
      const byPolicy = ['401', '403', '421', '429'].includes(status);
      if (byPolicy && operation['x-before-request-policy'] === true) continue;
      if (status !== '404' && status !== '405' && !operation.responses?.[status]) {
        problems.push(`${where}: the reply ${status} that any request can get is not documented`);
      }
    }
  }
}

if (problems.length > 0) {
  console.error(`${documentPath}:\n${problems.join('\n')}`);
  process.exit(1);
}
console.log(`${documentPath}: a valid OpenAPI 3.1 document with ${operationIds.size} operations`);
