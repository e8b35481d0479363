// The login: name and password go to the station, and nowhere else; the page keeps neither.

import { api, ApiError, errorText } from './api.ts';
import { element } from './dom.ts';

function problemText(error: unknown): string {
  if (error instanceof ApiError && error.status === 429 && error.retryAfter !== null) {
    return `${error.message} Wait ${error.retryAfter} s.`;
  }
  return errorText(error);
}

/** A form; `done` is called when the station has admitted the person. */
export function loginForm(reason: string, done: () => void): HTMLFormElement {
  const name = element('input', {
    name: 'name', autocomplete: 'username', required: true, autocapitalize: 'off',
    spellcheck: 'false', maxlength: '255',
  });
  const password = element('input', {
    name: 'password', type: 'password', autocomplete: 'current-password', required: true,
    maxlength: '255',
  });
  const problem = element('p', { class: 'problem', role: 'alert' }, reason);
  const submit = element('button', { type: 'submit', class: 'main' }, 'Log in');
  const send = async () => {
    submit.disabled = true;
    problem.textContent = '';
    try {
      await api.login(name.value, password.value);
      done();
    } catch (error) {
      problem.textContent = problemText(error);
      password.select();
      password.focus();
    } finally {
      password.value = '';
      submit.disabled = false;
    }
  };
  return element('form', { class: 'login', onsubmit: (event) => {
    event.preventDefault();
    void send();
  } },
  element('h1', {}, 'Consoles of this station'),
  element('label', {}, 'Name', name),
  element('label', {}, 'Password', password),
  submit, problem);
}
