// Helpers every part of the console's page uses: the API call with the
// console's error sentences, and element building.
'use strict';

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

export class ApiError extends Error {
  constructor(status, message) { super(message); this.status = status; }
}

// fetch() with the console's refusals ({"error": "..."}) as exceptions; a
// network failure has status 0.
export async function api(path, options = {}) {
  let response;
  try {
    response = await fetch(path, { cache: 'no-store', ...options });
  } catch (error) {
    throw new ApiError(0, 'no answer from the board');
  }
  const body = await response.json().catch(() => ({}));
  if (!response.ok) throw new ApiError(response.status, body.error || `${response.status} ${response.statusText}`);
  return body;
}

export function putJson(path, value) {
  return api(path, { method: 'PUT', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(value) });
}

// element('input', {id: 'x', 'aria-label': 'y', dataset: {camera: 0}}, ...children)
export function element(tag, props = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(props)) {
    if (key === 'dataset') Object.assign(node.dataset, value);
    else if (key.includes('-') || key === 'for' || key === 'role') node.setAttribute(key, value);
    else node[key] = value;
  }
  for (const child of children) if (child !== null && child !== undefined) node.append(child);
  return node;
}
