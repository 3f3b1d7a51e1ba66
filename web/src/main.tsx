import { render } from 'preact'
import './style.css'
import { App } from './app'
import { firstLanguage } from './texts'
import { watchTheme } from './theme'

const root = document.getElementById('app')
watchTheme()
if (root) void firstLanguage().then(() => render(<App />, root))
