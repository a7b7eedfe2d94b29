// What the two checks share: loading the validator, JSON pointers and readable validation errors.
export const METHODS = ['get', 'put', 'post', 'delete', 'options', 'head', 'patch', 'trace'];

export async function loadValidator() {
  try {
    return await import('@hyperjump/json-schema/openapi-3-1');
  } catch {
    console.log('@hyperjump/json-schema is not installed (npm ci in tests/contract): skipped');
    process.exit(77);
  }
}

// The value at a local reference ("#/components/schemas/Error"), or undefined.
export function pointerGet(document, reference) {
  if (!reference.startsWith('#')) return undefined;
  let node = document;
  for (const raw of reference.slice(1).split('/').slice(1)) {
    const key = decodeURIComponent(raw).replace(/~1/g, '/').replace(/~0/g, '~');
    if (node === null || typeof node !== 'object' || !(key in node)) return undefined;
    node = node[key];
  }
  return node;
}

export function pointerEscape(key) {
  return encodeURIComponent(key.replace(/~/g, '~0').replace(/\//g, '~1'));
}

// `detail(error)` may add text of its own to an error's line.
export function formatErrors(errors = [], detail = () => '') {
  // The innermost failures say most; the schema's own combinators ("anyOf" failed) repeat them.
  const shown = errors.filter((e) => !/\/(anyOf|oneOf|allOf|ref|\$ref|properties|items|additionalProperties)$/.test(e.keyword));
  return (shown.length > 0 ? shown : errors)
    .slice(0, 12)
    .map((e) => `  at ${e.instanceLocation}: ${e.keyword.replace(/^.*\/keyword\//, '')} (${e.absoluteKeywordLocation})${detail(e)}`)
    .join('\n');
}
