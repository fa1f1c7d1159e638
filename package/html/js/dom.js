// Makes elements. Text is only ever inserted as text, so what the device sends can't become markup.

/**
 * @typedef {string | number | boolean | null | undefined | EventListener} Property
 * @typedef {Node | string | null | undefined} Child
 */

/**
 * An element with attributes and children. A property "onclick" and the like takes a listener;
 * true stands for an empty attribute; false, null and undefined leave it out.
 * @template {keyof HTMLElementTagNameMap} Tag
 * @param {Tag} tag
 * @param {Record<string, Property>} [properties]
 * @param {...Child} children
 * @returns {HTMLElementTagNameMap[Tag]}
 */
export function el(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (typeof value === 'function') {
      element.addEventListener(name.slice(2), value);
    } else if (value !== false && value !== null && value !== undefined) {
      element.setAttribute(name, value === true ? '' : String(value));
    }
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

/**
 * The element of the page's own markup with this id.
 * @param {string} id
 * @returns {HTMLElement}
 */
export function byId(id) {
  const element = document.getElementById(id);
  if (!element) {
    throw new Error(`the page has no element "${id}"`);
  }
  return element;
}

/**
 * Changes an element's text only where it differs, so that a live region speaks once.
 * @param {Node} node
 * @param {string} text
 */
export function setText(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}
